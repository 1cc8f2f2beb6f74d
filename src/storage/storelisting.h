#pragma once

#include "storage/infofile.h"

#include <QString>

#include <vector>

namespace kelvane::storage {

// Every device directory under every adapter directory of root that holds a
// readable info file, sorted by display label, then address. Never fails: an
// unusable store simply yields fewer entries.
std::vector<StoredDevice> listStoredDevices(const QString &root);

// A store directory name with each "\:" turned into ":".
QString unescapeStoreName(const QString &name);

} // namespace kelvane::storage
