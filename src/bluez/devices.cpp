#include "bluez/devices.h"

#include "bluez/names.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"

namespace kelvane::bluez {

namespace {

std::string textProperty(const PropertyMap &properties, const char *name) {
    return core::toUtf8(properties.value(QLatin1String(name)).toString());
}

bool boolProperty(const PropertyMap &properties, const char *name) {
    return properties.value(QLatin1String(name)).toBool();
}

// Present means "in the map"; a value of the wrong type converts to 0.
template <typename T>
std::optional<T> unsignedProperty(const PropertyMap &properties, const char *name) {
    const QVariant value = properties.value(QLatin1String(name));
    if (!value.isValid())
        return std::nullopt;
    return static_cast<T>(value.toUInt());
}

} // namespace

core::DeviceInfo deviceFromProperties(const QString &path, const PropertyMap &properties) {
    core::DeviceInfo device;
    device.path = core::toUtf8(path);
    device.address = textProperty(properties, "Address");
    device.name = textProperty(properties, "Name");
    device.alias = textProperty(properties, "Alias");
    device.icon = textProperty(properties, "Icon");
    device.paired = boolProperty(properties, "Paired");
    device.trusted = boolProperty(properties, "Trusted");
    device.connected = boolProperty(properties, "Connected");
    device.classOfDevice = unsignedProperty<std::uint32_t>(properties, "Class");
    device.appearance = unsignedProperty<std::uint16_t>(properties, "Appearance");
    const QVariant uuids = properties.value(QStringLiteral("UUIDs"));
    // An array of anything but strings arrives opaque and converts to nothing.
    for (const QString &uuid : uuids.toStringList())
        device.uuids.push_back(core::toUtf8(uuid));
    const QVariant rssi = properties.value(QStringLiteral("RSSI"));
    if (rssi.isValid())
        device.rssi = static_cast<std::int16_t>(rssi.toInt());
    return device;
}

std::vector<core::DeviceInfo> devicesWithAddress(const ObjectProperties &devices) {
    std::vector<core::DeviceInfo> records;
    for (const auto &[path, properties] : devices) {
        core::DeviceInfo device = deviceFromProperties(path, properties);
        if (!device.address.empty())
            records.push_back(std::move(device));
    }
    return records;
}

core::Expected<std::vector<core::DeviceInfo>> listLiveDevices() {
    const auto objects = loadManagedObjects();
    if (!objects)
        return objects.error();
    return devicesWithAddress(objectsWith(*objects, names::device));
}

} // namespace kelvane::bluez
