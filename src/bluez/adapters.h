#pragma once

#include "core/records.h"

#include <QString>

#include <string>
#include <vector>

namespace kelvane::bluez {

// Every adapter with an address, in object-path text order.
std::vector<core::AdapterInfo> listAdapters(std::string &error);

// N of "/org/bluez/hciN", or -1 for any other path.
int adapterIdFromPath(const QString &path);

// True when the adapter is powered, or BlueZ accepted powering it on.
bool ensureAdapterPowered(const QString &adapterPath, QString &error);

} // namespace kelvane::bluez
