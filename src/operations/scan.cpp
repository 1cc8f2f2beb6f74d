#include "operations/scan.h"

#include "bluez/adapters.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"
#include "result/latestbyaddress.h"

#include <QThread>

#include <algorithm>

namespace kelvane::operations {

namespace {

constexpr int scanSeconds = 10;

// A snapshot that fails contributes nothing to its poll.
std::vector<core::DeviceInfo> pollAdapterDevices(const QString &adapterPath) {
    const auto objects = bluez::loadManagedObjects();
    if (!objects)
        return {};
    return bluez::devicesWithAddress(bluez::devicesUnder(*objects, adapterPath));
}

std::string adapterReport(const core::AdapterInfo &adapter, const QString &error) {
    return "adapter " + std::to_string(adapter.id) + ": " + core::toUtf8(error);
}

} // namespace

core::Expected<std::vector<core::DeviceInfo>> scanAdapter(const core::AdapterInfo &adapter,
                                                          int seconds) {
    const QString path = core::fromUtf8(adapter.path);
    if (const core::Status powered = bluez::ensureAdapterPowered(adapter); !powered)
        return powered.error();
    if (const core::Status started = bluez::startDiscovery(path); !started)
        return started.error();
    result::LatestByAddress latest;
    for (int poll = 0; poll < seconds; ++poll) {
        QThread::sleep(1);
        latest.merge(pollAdapterDevices(path));
    }
    bluez::stopDiscovery(path);
    std::vector<core::DeviceInfo> seen = latest.take();
    std::sort(seen.begin(), seen.end(), result::deviceSortsBefore);
    return seen;
}

result::ResultDocument scan() {
    const auto adapters = bluez::listAdapters();
    if (!adapters)
        return result::simpleResult(adapters.error());
    result::ResultDocument document;
    document.setAdapters(*adapters);
    for (const core::AdapterInfo &adapter : *adapters) {
        const auto devices = scanAdapter(adapter, scanSeconds);
        if (devices)
            document.mergeDevices(*devices);
        else
            document.addPartialFailure(adapterReport(adapter, devices.error().message));
    }
    return document;
}

} // namespace kelvane::operations
