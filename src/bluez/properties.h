#pragma once

#include <QDBusAbstractInterface>
#include <QDBusInterface>
#include <QString>
#include <QVariant>

namespace kelvane::bluez {

// Whether introspection data lists the interface on the object itself.
bool introspectionDeclares(const QString &xml, const QString &interface);

// Whether org.bluez has an object at the path that declares the interface.
// Untraced, like the introspection Qt itself does for a proxy.
bool bluezObjectDeclares(const QString &path, const QString &interface);

// Whether the object behind an org.bluez proxy exists and carries the
// proxy's interface.
bool proxyFound(const QDBusInterface &proxy);

// Sets a boolean property to true through org.freedesktop.DBus.Properties.Set.
bool setPropertyTrue(const QString &path, const QString &interface, const QString &property,
                     QString *error = nullptr);

// One property read through an introspected proxy (untraced). A daemon that
// declares the property as "v" hands us a QDBusVariant; it is unwrapped here.
QVariant readProxyProperty(QDBusAbstractInterface &proxy, const char *property);

// Reads a boolean property through a proxy; an unreadable property is false.
// Untraced, like every property read.
bool readBoolProperty(const QString &path, const QString &interface, const QString &property);

} // namespace kelvane::bluez
