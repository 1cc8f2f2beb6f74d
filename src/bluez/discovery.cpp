#include "bluez/discovery.h"

#include "bluez/dbustypes.h"
#include "bluez/names.h"
#include "bluez/properties.h"
#include "core/trace.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusObjectPath>

namespace kelvane::bluez {

namespace DbusTrace = core::DbusTrace;

namespace {

QString adapterNotFound(const QString &adapterPath) {
    return QStringLiteral("adapter not found: %1").arg(adapterPath);
}

// Traces one call on the adapter and its outcome; true on a method return.
bool tracedAdapterCall(QDBusInterface &proxy, const QString &adapterPath, const QString &method,
                       const QString &summary, const QVariantList &arguments, QString *error) {
    DbusTrace::call(names::service, adapterPath, names::adapter, method, summary);
    const QDBusMessage reply = proxy.callWithArgumentList(QDBus::AutoDetect, method, arguments);
    const bool ok = reply.type() != QDBusMessage::ErrorMessage;
    DbusTrace::reply(method, ok, ok ? QString() : reply.errorMessage());
    if (!ok && error)
        *error = reply.errorMessage();
    return ok;
}

} // namespace

bool startDiscovery(const QString &adapterPath, QString &error) {
    registerDbusTypes();
    QDBusInterface proxy(names::service, adapterPath, names::adapter, QDBusConnection::systemBus());
    if (!proxyFound(proxy)) {
        error = adapterNotFound(adapterPath);
        return false;
    }
    PropertyMap filter;
    filter.insert(QStringLiteral("Transport"), QStringLiteral("auto"));
    if (!tracedAdapterCall(proxy, adapterPath, QStringLiteral("SetDiscoveryFilter"),
                           QStringLiteral("Transport=auto"), {QVariant::fromValue(filter)}, &error))
        return false;
    return tracedAdapterCall(proxy, adapterPath, QStringLiteral("StartDiscovery"), QString(), {},
                             &error);
}

void stopDiscovery(const QString &adapterPath) {
    const QString method = QStringLiteral("StopDiscovery");
    // Traced before the proxy exists: an adapter that vanished still shows the attempt.
    DbusTrace::call(names::service, adapterPath, names::adapter, method, QString());
    QDBusInterface proxy(names::service, adapterPath, names::adapter, QDBusConnection::systemBus());
    const QDBusMessage reply = proxy.call(method);
    const bool ok = reply.type() != QDBusMessage::ErrorMessage;
    DbusTrace::reply(method, ok, ok ? QString() : reply.errorMessage());
}

bool removeDevice(const QString &adapterPath, const QString &devicePath, QString *error) {
    if (adapterPath.isEmpty() || devicePath.isEmpty()) {
        if (error)
            *error = QStringLiteral("invalid device path");
        return false;
    }
    registerDbusTypes();
    QDBusInterface proxy(names::service, adapterPath, names::adapter, QDBusConnection::systemBus());
    if (!proxyFound(proxy)) {
        if (error)
            *error = adapterNotFound(adapterPath);
        return false;
    }
    return tracedAdapterCall(proxy, adapterPath, QStringLiteral("RemoveDevice"), devicePath,
                             {QVariant::fromValue(QDBusObjectPath(devicePath))}, error);
}

} // namespace kelvane::bluez
