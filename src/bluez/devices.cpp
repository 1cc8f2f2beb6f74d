#include "bluez/devices.h"

#include "bluez/address.h"
#include "bluez/names.h"
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
    // An array of anything but strings arrives as a QDBusArgument and converts to nothing.
    for (const QString &uuid : uuids.toStringList())
        device.uuids.push_back(core::toUtf8(uuid));
    const QVariant rssi = properties.value(QStringLiteral("RSSI"));
    if (rssi.isValid())
        device.rssi = static_cast<std::int16_t>(rssi.toInt());
    return device;
}

QString findDevicePathByAddress(const ManagedObjectMap &objects, const QString &address) {
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const PropertyMap properties = it.value().value(names::device);
        if (properties.isEmpty())
            continue;
        if (sameAddress(properties.value(QStringLiteral("Address")).toString(), address))
            return it.key().path();
    }
    return QString();
}

std::vector<core::DeviceInfo> listLiveDevices(std::string &error) {
    error.clear();
    QString snapshotError;
    const ManagedObjectMap objects = loadManagedObjects(&snapshotError);
    std::vector<core::DeviceInfo> devices;
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const PropertyMap properties = it.value().value(names::device);
        if (properties.isEmpty())
            continue;
        core::DeviceInfo device = deviceFromProperties(it.key().path(), properties);
        if (!device.address.empty())
            devices.push_back(std::move(device));
    }
    if (devices.empty())
        error = core::toUtf8(snapshotError);
    return devices;
}

} // namespace kelvane::bluez
