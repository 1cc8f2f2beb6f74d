#pragma once

#include <QMap>
#include <QString>
#include <QVariantMap>

namespace kelvane::bluez {

// a{oa{sa{sv}}}: BlueZ's object tree as one value, every level ordered by
// its key's text (so /org/bluez/hci1 < /org/bluez/hci10 < /org/bluez/hci2).
// A property value converts as a QVariant does: a missing key reads as
// invalid, a value of another type as false, 0, "" or an empty list.
using PropertyMap = QVariantMap;
using InterfaceMap = QMap<QString, PropertyMap>;
using ManagedObjectMap = QMap<QString, InterfaceMap>;

} // namespace kelvane::bluez
