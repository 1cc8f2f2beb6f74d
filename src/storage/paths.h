#pragma once

#include <QString>

namespace kelvane::storage {

// BlueZ's on-disk store and the place its backup copy is kept.
inline const QString storeRoot = QStringLiteral("/var/lib/bluetooth");
inline const QString backupRoot = QStringLiteral("/tmp/config/files/var_bluetooth");

} // namespace kelvane::storage
