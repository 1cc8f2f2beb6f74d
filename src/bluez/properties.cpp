#include "bluez/properties.h"

#include "bluez/dbustypes.h"
#include "bluez/names.h"
#include "bluez/trace.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDBusVariant>

namespace kelvane::bluez {

bool setPropertyTrue(const QString &path, const QString &interface, const QString &property,
                     QString *error) {
    registerDbusTypes();
    QDBusInterface proxy(names::service, path, names::properties, QDBusConnection::systemBus());
    if (!proxy.isValid()) {
        if (error)
            *error = QStringLiteral("invalid properties interface: %1").arg(path);
        return false;
    }
    const QString detail =
        QStringLiteral("%1.%2=%3").arg(interface, property, QStringLiteral("true"));
    DbusTrace::call(names::service, path, names::properties, QStringLiteral("Set"), detail);
    const QDBusMessage reply = proxy.call(QStringLiteral("Set"), interface, property,
                                          QVariant::fromValue(QDBusVariant(true)));
    if (reply.type() == QDBusMessage::ErrorMessage) {
        DbusTrace::reply(QStringLiteral("Properties.Set"), false, reply.errorMessage());
        if (error)
            *error = reply.errorMessage();
        return false;
    }
    DbusTrace::reply(QStringLiteral("Properties.Set"), true, detail);
    return true;
}

QVariant readProxyProperty(QDBusAbstractInterface &proxy, const char *property) {
    const QVariant value = proxy.property(property);
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return value.value<QDBusVariant>().variant();
    return value;
}

bool readBoolProperty(const QString &path, const QString &interface, const QString &property) {
    QDBusInterface proxy(names::service, path, interface, QDBusConnection::systemBus());
    if (!proxy.isValid())
        return false;
    return readProxyProperty(proxy, property.toUtf8().constData()).toBool();
}

} // namespace kelvane::bluez
