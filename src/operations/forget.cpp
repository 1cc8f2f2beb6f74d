#include "operations/forget.h"

#include "bluez/address.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"

namespace kelvane::operations {

namespace {

// "/org/bluez/hci0/dev_X" -> "/org/bluez/hci0"; empty when there is no parent.
QString adapterPathOf(const QString &devicePath) {
    const int slash = devicePath.lastIndexOf(QLatin1Char('/'));
    return slash > 0 ? devicePath.left(slash) : QString();
}

} // namespace

bool forgetDevice(std::string &error, const std::string &address, core::DeviceInfo *removed) {
    error.clear();
    const QString typed = core::fromUtf8(address);
    if (!bluez::isValidAddress(bluez::normalizeAddress(typed))) {
        error = "invalid Bluetooth address: " + address;
        return false;
    }
    // An unreachable daemon simply knows no device; the fallback decides.
    const bluez::ManagedObjectMap objects = bluez::loadManagedObjects();
    const QString devicePath = bluez::findDevicePathByAddress(objects, typed);
    if (devicePath.isEmpty()) {
        error = "device not found";
        return false;
    }
    const bluez::PropertyMap properties =
        bluez::interfaceProperties(objects, devicePath, bluez::names::device);
    if (removed && !properties.isEmpty())
        *removed = bluez::deviceFromProperties(devicePath, properties);

    QString removeError;
    if (!bluez::removeDevice(adapterPathOf(devicePath), devicePath, &removeError)) {
        error = core::toUtf8(removeError);
        return false;
    }
    return true;
}

} // namespace kelvane::operations
