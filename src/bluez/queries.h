#pragma once

#include "bluez/objectmap.h"

#include <QString>

#include <utility>
#include <vector>

// Questions answered from a snapshot alone, in its object-path order.
namespace kelvane::bluez {

// An object path with the properties of one of its interfaces.
using ObjectProperties = std::vector<std::pair<QString, PropertyMap>>;

// The objects whose property set of `interface` is there and not empty.
ObjectProperties objectsWith(const ManagedObjectMap &objects, const QString &interface);

// The devices (org.bluez.Device1 objects) below the adapter's path.
ObjectProperties devicesUnder(const ManagedObjectMap &objects, const QString &adapterPath);

// The first adapter whose Powered reads true, else the first adapter; empty
// when there is none.
QString firstPoweredAdapter(const ManagedObjectMap &objects);

// The first device whose Address is the same address (sameAddress); empty
// when there is none. Devices of all adapters count.
QString findDevicePathByAddress(const ManagedObjectMap &objects, const QString &address);

// Value-or-empty lookup of one interface's properties.
PropertyMap interfaceProperties(const ManagedObjectMap &objects, const QString &path,
                                const QString &interface);

} // namespace kelvane::bluez
