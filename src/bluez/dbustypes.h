#pragma once

#include <QDBusObjectPath>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

namespace kelvane::bluez {

// a{oa{sa{sv}}}: BlueZ's object tree, ordered by object path text.
using PropertyMap = QVariantMap;
using InterfaceMap = QMap<QString, PropertyMap>;
using ManagedObjectMap = QMap<QDBusObjectPath, InterfaceMap>;

// Registers the map types with Qt's meta-type and D-Bus systems; idempotent.
void registerDbusTypes();

} // namespace kelvane::bluez

Q_DECLARE_METATYPE(kelvane::bluez::InterfaceMap)
Q_DECLARE_METATYPE(kelvane::bluez::ManagedObjectMap)
