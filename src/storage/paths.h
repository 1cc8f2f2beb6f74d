#pragma once

#include <QString>

namespace kelvane::storage {

// BlueZ's on-disk store. Its backup lives at /tmp/config/files/var_bluetooth
// (see defaultBackupLocation).
inline const QString storeRoot = QStringLiteral("/var/lib/bluetooth");

// Taken by every run that changes the store, its backup or the event file.
// /run is writable by root alone, so nobody else can plant anything there.
inline const QString lockFile = QStringLiteral("/run/kelvane.lock");

} // namespace kelvane::storage
