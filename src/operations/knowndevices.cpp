#include "operations/knowndevices.h"

#include "bluez/address.h"
#include "bluez/devices.h"
#include "core/utf8.h"
#include "storage/paths.h"
#include "storage/storelisting.h"

#include <QHash>

#include <algorithm>

namespace kelvane::operations {

namespace {

using core::DeviceInfo;
using storage::StoredDevice;

// The live devices by address key, the first of each address winning: a
// store of thousands is joined in linear time.
using LiveIndex = QHash<QString, const DeviceInfo *>;

LiveIndex indexByAddress(const std::vector<DeviceInfo> &live) {
    LiveIndex index;
    index.reserve(static_cast<int>(live.size()));
    for (const DeviceInfo &device : live) {
        const QString key = bluez::addressKey(core::fromUtf8(device.address));
        if (!index.contains(key))
            index.insert(key, &device);
    }
    return index;
}

// The store supplies the facts; the bus only the object path and connection.
DeviceInfo knownDevice(const StoredDevice &stored, const LiveIndex &live) {
    DeviceInfo device;
    device.address = core::toUtf8(stored.address);
    device.name = core::toUtf8(stored.name);
    device.paired = true;
    device.trusted = stored.trusted;
    device.classOfDevice = stored.deviceClass;
    device.appearance = stored.appearance;
    for (const QString &uuid : stored.services)
        device.uuids.push_back(core::toUtf8(uuid));
    if (const DeviceInfo *partner = live.value(bluez::addressKey(stored.address))) {
        device.connected = partner->connected;
        device.path = partner->path;
    }
    return device;
}

// Adapters the store names, numbered in order of first appearance.
std::vector<core::AdapterInfo> storedAdapters(const std::vector<StoredDevice> &stored) {
    std::vector<core::AdapterInfo> adapters;
    for (const StoredDevice &device : stored) {
        const std::string address = core::toUtf8(device.adapter);
        const bool known =
            std::any_of(adapters.begin(), adapters.end(),
                        [&](const core::AdapterInfo &a) { return a.address == address; });
        if (known)
            continue;
        core::AdapterInfo adapter;
        adapter.id = static_cast<std::int32_t>(adapters.size());
        adapter.address = address;
        adapters.push_back(adapter);
    }
    return adapters;
}

} // namespace

result::ResultDocument listKnownDevices() {
    const auto live = bluez::listLiveDevices();
    const std::vector<DeviceInfo> liveDevices = live ? *live : std::vector<DeviceInfo>();
    const std::vector<StoredDevice> stored = storage::listStoredDevices(storage::storeRoot);

    const LiveIndex index = indexByAddress(liveDevices);
    std::vector<DeviceInfo> known;
    known.reserve(stored.size());
    for (const StoredDevice &device : stored)
        known.push_back(knownDevice(device, index));

    result::ResultDocument document;
    document.mergeDevices(known);
    // Without live state the stored devices are still worth listing.
    if (!stored.empty() && !live)
        document.addPartialFailure("could not query live device state: " +
                                   core::toUtf8(live.error().message));
    document.setAdapters(storedAdapters(stored));
    return document;
}

} // namespace kelvane::operations
