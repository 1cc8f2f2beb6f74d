#include "bluez/adapters.h"

#include "bluez/names.h"
#include "bluez/properties.h"
#include "bluez/snapshot.h"
#include "core/utf8.h"

#include <QDBusConnection>
#include <QDBusInterface>

namespace kelvane::bluez {

namespace {

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

} // namespace

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

std::vector<core::AdapterInfo> listAdapters(std::string &error) {
    error.clear();
    QString snapshotError;
    const ManagedObjectMap objects = loadManagedObjects(&snapshotError);
    std::vector<core::AdapterInfo> adapters;
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const PropertyMap properties = it.value().value(names::adapter);
        if (properties.isEmpty())
            continue;
        core::AdapterInfo adapter = adapterFromProperties(it.key().path(), properties);
        if (!adapter.address.empty())
            adapters.push_back(std::move(adapter));
    }
    if (adapters.empty())
        error = snapshotError.isEmpty() ? std::string("no Bluetooth adapters found")
                                        : core::toUtf8(snapshotError);
    return adapters;
}

bool ensureAdapterPowered(const QString &adapterPath, QString &error) {
    QDBusInterface proxy(names::service, adapterPath, names::adapter, QDBusConnection::systemBus());
    if (!proxyFound(proxy)) {
        error = QStringLiteral("adapter not found: %1").arg(adapterPath);
        return false;
    }
    if (readProxyProperty(proxy, "Powered").toBool())
        return true;
    return setPropertyTrue(adapterPath, names::adapter, QStringLiteral("Powered"), &error);
}

} // namespace kelvane::bluez
