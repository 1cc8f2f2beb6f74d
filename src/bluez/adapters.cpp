#include "bluez/adapters.h"

#include "bluez/names.h"
#include "bluez/properties.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"

namespace kelvane::bluez {

core::AdapterInfo adapterFromProperties(const QString &path, const PropertyMap &properties) {
    core::AdapterInfo adapter;
    adapter.path = core::toUtf8(path);
    adapter.id = adapterIdFromPath(path);
    adapter.address = core::toUtf8(properties.value(QStringLiteral("Address")).toString());
    adapter.name = core::toUtf8(properties.value(QStringLiteral("Name")).toString());
    adapter.alias = core::toUtf8(properties.value(QStringLiteral("Alias")).toString());
    adapter.powered = properties.value(QStringLiteral("Powered")).toBool();
    adapter.discovering = properties.value(QStringLiteral("Discovering")).toBool();
    return adapter;
}

int adapterIdFromPath(const QString &path) {
    if (!path.startsWith(names::adapterPathPrefix))
        return -1;
    const QString rest = path.mid(names::adapterPathPrefix.size());
    // Digits only: toInt alone would also take a sign or surrounding blanks.
    for (const QChar c : rest) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return -1;
    }
    bool ok = false;
    const int id = rest.toInt(&ok, 10);
    return ok ? id : -1;
}

std::vector<core::AdapterInfo> adaptersIn(const ManagedObjectMap &objects) {
    std::vector<core::AdapterInfo> adapters;
    for (const auto &[path, properties] : objectsWith(objects, names::adapter)) {
        core::AdapterInfo adapter = adapterFromProperties(path, properties);
        if (!adapter.address.empty())
            adapters.push_back(std::move(adapter));
    }
    return adapters;
}

core::Expected<std::vector<core::AdapterInfo>> listAdapters() {
    const auto objects = loadManagedObjects();
    if (!objects)
        return objects.error();
    std::vector<core::AdapterInfo> adapters = adaptersIn(*objects);
    if (adapters.empty())
        return core::failure(QStringLiteral("no Bluetooth adapters found"));
    return adapters;
}

core::Status ensureAdapterPowered(const core::AdapterInfo &adapter) {
    if (adapter.powered)
        return {};
    return setPropertyTrue(core::fromUtf8(adapter.path), names::adapter, QStringLiteral("Powered"));
}

} // namespace kelvane::bluez
