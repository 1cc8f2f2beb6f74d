#pragma once

#include "bluez/objectmap.h"
#include "bluez/queries.h"
#include "core/expected.h"
#include "core/records.h"

#include <QString>

#include <vector>

namespace kelvane::bluez {

// A record from an org.bluez.Device1 property map; tolerant of wrong types.
core::DeviceInfo deviceFromProperties(const QString &path, const PropertyMap &properties);

// The records of the given device objects that have an address, in order.
std::vector<core::DeviceInfo> devicesWithAddress(const ObjectProperties &devices);

// Every device BlueZ has right now, in object-path order; fails with the
// snapshot's error.
core::Expected<std::vector<core::DeviceInfo>> listLiveDevices();

} // namespace kelvane::bluez
