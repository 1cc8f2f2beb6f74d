#pragma once

#include <QDBusAbstractInterface>
#include <QString>
#include <QVariant>

namespace kelvane::bluez {

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
