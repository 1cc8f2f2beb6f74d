#include "operations/scan.h"

#include "bluez/adapters.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/snapshot.h"
#include "result/resultdocument.h"
#include "core/utf8.h"

#include <QThread>

#include <algorithm>

namespace kelvane::operations {

namespace {

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

} // namespace

std::vector<core::DeviceInfo> scanAdapter(const std::string &adapterPath, std::string &error,
                                            int seconds) {
    error.clear();
    const QString path = core::fromUtf8(adapterPath);
    if (path.isEmpty()) {
        error = "invalid adapter path";
        return {};
    }
    QString stepError;
    if (!bluez::ensureAdapterPowered(path, stepError) || !bluez::startDiscovery(path, stepError)) {
        error = core::toUtf8(stepError);
        return {};
    }
    std::vector<core::DeviceInfo> seen;
    for (int poll = 0; poll < seconds; ++poll) {
        QThread::sleep(1);
        mergeLatest(seen, pollAdapterDevices(path));
    }
    bluez::stopDiscovery(path);
    std::sort(seen.begin(), seen.end(), result::deviceSortsBefore);
    return seen;
}

} // namespace kelvane::operations
