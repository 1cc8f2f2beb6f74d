#include "bluez/properties.h"

#include "bluez/dbustypes.h"
#include "bluez/names.h"
#include "core/trace.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDBusVariant>
#include <QXmlStreamReader>

namespace kelvane::bluez {

namespace DbusTrace = core::DbusTrace;

bool introspectionDeclares(const QString &xml, const QString &interface) {
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement &&
            reader.name() == QLatin1String("interface") &&
            reader.attributes().value(QLatin1String("name")) == interface)
            return true;
    }
    return false;
}

bool bluezObjectDeclares(const QString &path, const QString &interface) {
    const QDBusMessage reply = QDBusConnection::systemBus().call(
        QDBusMessage::createMethodCall(names::service, path, names::introspectable,
                                       QStringLiteral("Introspect")),
        QDBus::Block);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           introspectionDeclares(reply.arguments().constFirst().toString(), interface);
}

// QDBusInterface::isValid() only says that the service has an owner: a
// missing object introspects as an empty node, which Qt takes for an object
// that does not support introspection, and once an interface's layout is
// cached Qt stops introspecting altogether. So ask the object itself.
bool proxyFound(const QDBusInterface &proxy) {
    return proxy.isValid() && bluezObjectDeclares(proxy.path(), proxy.interface());
}

bool setPropertyTrue(const QString &path, const QString &interface, const QString &property,
                     QString *error) {
    registerDbusTypes();
    QDBusInterface proxy(names::service, path, names::properties, QDBusConnection::systemBus());
    if (!proxyFound(proxy)) {
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
    if (!proxyFound(proxy))
        return false;
    return readProxyProperty(proxy, property.toUtf8().constData()).toBool();
}

} // namespace kelvane::bluez
