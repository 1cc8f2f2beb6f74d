#pragma once

#include <QString>

namespace kelvane::storage {

// Deletes path and, when it is a real directory, everything below it. A
// symbolic link is removed itself, never followed, so nothing outside path
// can be deleted through one. False when anything could not be removed.
bool removeTree(const QString &path);

} // namespace kelvane::storage
