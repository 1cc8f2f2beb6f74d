#pragma once

#include "bluez/objectmap.h"
#include "core/expected.h"
#include "core/records.h"

#include <QString>

#include <vector>

namespace kelvane::bluez {

// The record of one org.bluez.Adapter1 object; tolerant of wrong types.
core::AdapterInfo adapterFromProperties(const QString &path, const PropertyMap &properties);

// Every adapter with an address in the snapshot, in object-path order.
std::vector<core::AdapterInfo> adaptersIn(const ManagedObjectMap &objects);

// adaptersIn of a fresh snapshot; fails with the snapshot's error, or with
// "no Bluetooth adapters found" when it lists none.
core::Expected<std::vector<core::AdapterInfo>> listAdapters();

// N of "/org/bluez/hciN", or -1 for any other path.
int adapterIdFromPath(const QString &path);

// Powers the adapter on unless its record says it is powered already.
core::Status ensureAdapterPowered(const core::AdapterInfo &adapter);

} // namespace kelvane::bluez
