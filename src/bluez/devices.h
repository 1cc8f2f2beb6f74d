#pragma once

#include "bluez/dbustypes.h"
#include "core/records.h"

#include <QString>

#include <string>
#include <vector>

namespace kelvane::bluez {

// A record from an org.bluez.Device1 property map; tolerant of wrong types.
core::DeviceInfo deviceFromProperties(const QString &path, const PropertyMap &properties);

// Object path of the first device (in path order) whose Address is the same
// address (sameAddress); empty when none.
QString findDevicePathByAddress(const ManagedObjectMap &objects, const QString &address);

// Every device BlueZ has right now, in object-path order.
std::vector<core::DeviceInfo> listLiveDevices(std::string &error);

} // namespace kelvane::bluez
