#include "bluez/queries.h"

#include "bluez/address.h"
#include "bluez/names.h"

namespace kelvane::bluez {

namespace {

// "/org/bluez/hci1/" keeps hci10's devices out of hci1's.
bool belongsToAdapter(const QString &objectPath, const QString &adapterPath) {
    return objectPath.startsWith(adapterPath + QLatin1Char('/')) &&
           objectPath.contains(QLatin1String("/dev_"));
}

} // namespace

ObjectProperties objectsWith(const ManagedObjectMap &objects, const QString &interface) {
    ObjectProperties found;
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const PropertyMap properties = it.value().value(interface);
        if (!properties.isEmpty())
            found.emplace_back(it.key(), properties);
    }
    return found;
}

ObjectProperties devicesUnder(const ManagedObjectMap &objects, const QString &adapterPath) {
    ObjectProperties found;
    for (auto &object : objectsWith(objects, names::device)) {
        if (belongsToAdapter(object.first, adapterPath))
            found.push_back(std::move(object));
    }
    return found;
}

QString firstPoweredAdapter(const ManagedObjectMap &objects) {
    const ObjectProperties adapters = objectsWith(objects, names::adapter);
    for (const auto &[path, properties] : adapters) {
        if (properties.value(QStringLiteral("Powered")).toBool())
            return path;
    }
    return adapters.empty() ? QString() : adapters.front().first;
}

QString findDevicePathByAddress(const ManagedObjectMap &objects, const QString &address) {
    for (const auto &[path, properties] : objectsWith(objects, names::device)) {
        if (sameAddress(properties.value(QStringLiteral("Address")).toString(), address))
            return path;
    }
    return QString();
}

PropertyMap interfaceProperties(const ManagedObjectMap &objects, const QString &path,
                                const QString &interface) {
    return objects.value(path).value(interface);
}

} // namespace kelvane::bluez
