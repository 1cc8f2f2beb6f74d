#include "operations/scan.h"

#include "bluez/adapters.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"

#include <QThread>

#include <algorithm>

namespace kelvane::operations {

namespace {

constexpr int scanSeconds = 10;

// "/org/bluez/hci1/" keeps hci10's devices out of hci1's scan.
bool belongsToAdapter(const QString &objectPath, const QString &adapterPath) {
    return objectPath.startsWith(adapterPath + QLatin1Char('/')) &&
           objectPath.contains(QLatin1String("/dev_"));
}

std::vector<core::DeviceInfo> pollAdapterDevices(const QString &adapterPath) {
    std::vector<core::DeviceInfo> devices;
    const bluez::ManagedObjectMap objects = bluez::loadManagedObjects();
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        if (!belongsToAdapter(it.key().path(), adapterPath))
            continue;
        const bluez::PropertyMap properties = it.value().value(bluez::names::device);
        if (properties.isEmpty())
            continue;
        core::DeviceInfo device = bluez::deviceFromProperties(it.key().path(), properties);
        if (!device.address.empty())
            devices.push_back(std::move(device));
    }
    return devices;
}

// Unlike the result document's merge, the latest poll always wins here: a scan
// reports what the device looked like when it was last seen.
void mergeLatest(std::vector<core::DeviceInfo> &seen, std::vector<core::DeviceInfo> poll) {
    for (core::DeviceInfo &device : poll) {
        auto existing = std::find_if(seen.begin(), seen.end(), [&](const core::DeviceInfo &d) {
            return d.address == device.address;
        });
        if (existing == seen.end())
            seen.push_back(std::move(device));
        else
            *existing = std::move(device);
    }
}

std::string adapterReport(const core::AdapterInfo &adapter, const QString &error) {
    return "adapter " + std::to_string(adapter.id) + ": " + core::toUtf8(error);
}

} // namespace

core::Expected<std::vector<core::DeviceInfo>> scanAdapter(const core::AdapterInfo &adapter,
                                                          int seconds) {
    const QString path = core::fromUtf8(adapter.path);
    QString error;
    if (!bluez::ensureAdapterPowered(path, error) || !bluez::startDiscovery(path, error))
        return core::failure(error);
    std::vector<core::DeviceInfo> seen;
    for (int poll = 0; poll < seconds; ++poll) {
        QThread::sleep(1);
        mergeLatest(seen, pollAdapterDevices(path));
    }
    bluez::stopDiscovery(path);
    std::sort(seen.begin(), seen.end(), result::deviceSortsBefore);
    return seen;
}

result::ResultDocument scan() {
    result::ResultDocument document;
    std::string error;
    const std::vector<core::AdapterInfo> adapters = bluez::listAdapters(error);
    if (adapters.empty())
        return result::simpleResult(core::failure(core::fromUtf8(error)));
    document.setAdapters(adapters);
    for (const core::AdapterInfo &adapter : adapters) {
        const auto devices = scanAdapter(adapter, scanSeconds);
        if (devices)
            document.mergeDevices(*devices);
        else
            document.addPartialFailure(adapterReport(adapter, devices.error().message));
    }
    return document;
}

} // namespace kelvane::operations
