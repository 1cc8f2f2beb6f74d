#pragma once

#include "storage/infofile.h"

#include <QString>

namespace kelvane::storage {

// Deletes the directory of the device with this address (any letter case,
// '-' or ':' separated) under every adapter of the store at root. When
// removed is given it receives the record of the last directory deleted.
// True when at least one directory was deleted. An adapter directory that is
// a link (to persistent storage, say) is searched like any other, but never
// one that another user owns or may write into.
bool forgetStoredDevice(const QString &address, StoredDevice *removed, const QString &root);

} // namespace kelvane::storage
