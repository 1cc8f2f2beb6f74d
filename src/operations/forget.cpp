#include "operations/forget.h"

#include "bluez/address.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"
#include "storage/forgetstored.h"
#include "storage/paths.h"

namespace kelvane::operations {

namespace {

// "/org/bluez/hci0/dev_X" -> "/org/bluez/hci0"; empty when there is no parent.
QString adapterPathOf(const QString &devicePath) {
    const int slash = devicePath.lastIndexOf(QLatin1Char('/'));
    return slash > 0 ? devicePath.left(slash) : QString();
}

core::Status removeThroughBluez(const QString &address) {
    // An unreachable daemon simply knows no device; the store decides then.
    const auto objects = bluez::loadManagedObjects();
    const QString devicePath =
        objects ? bluez::findDevicePathByAddress(*objects, address) : QString();
    if (devicePath.isEmpty())
        return core::failure(QStringLiteral("device not found"));
    const QString adapterPath = adapterPathOf(devicePath);
    if (!adapterPath.isEmpty() &&
        bluez::interfaceProperties(*objects, adapterPath, bluez::names::adapter).isEmpty())
        return core::failure(QStringLiteral("adapter not found: %1").arg(adapterPath));
    const auto addressOf = [&](const QString &path, const QString &interface) {
        return bluez::interfaceProperties(*objects, path, interface)
            .value(QStringLiteral("Address"))
            .toString();
    };
    const storage::PendingRemoval onDisk(storage::storeRoot,
                                         addressOf(adapterPath, bluez::names::adapter),
                                         addressOf(devicePath, bluez::names::device));
    const core::Status removed = bluez::removeDevice(adapterPath, devicePath);
    if (removed)
        onDisk.await(std::chrono::seconds(2));
    return removed;
}

// When BlueZ cannot remove the device (not running, or not knowing it), its
// directories go from the store directly. The one place the store is edited.
bool removeFromStore(const QString &address) {
    return storage::forgetStoredDevice(address, nullptr, storage::storeRoot);
}

} // namespace

core::Expected<QString> forgetAddress(const std::string &typedAddress) {
    const QString address = bluez::normalizeAddress(core::fromUtf8(typedAddress).trimmed());
    if (!bluez::isValidAddress(address))
        return core::failure(QStringLiteral("invalid Bluetooth address: ") +
                             core::fromUtf8(typedAddress));
    return address;
}

result::ResultDocument forget(const std::string &typedAddress) {
    const core::Expected<QString> checked = forgetAddress(typedAddress);
    if (!checked)
        return result::simpleResult(checked.error());
    const QString &address = *checked;
    const core::Status removed = removeThroughBluez(address);
    if (removed || removeFromStore(address))
        return result::simpleResult(core::Status());
    const QString &message = removed.error().message;
    return result::simpleResult(
        core::failure(message.isEmpty() ? QStringLiteral("device not found") : message));
}

} // namespace kelvane::operations
