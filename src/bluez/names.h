#pragma once

#include <QString>

// Bus names, object paths, interfaces and error names the tool uses, in one
// place. The bus daemon's own names come from libdbus (dbus-protocol.h).
namespace kelvane::bluez::names {

inline const QString service = QStringLiteral("org.bluez");
inline const QString bluezRoot = QStringLiteral("/org/bluez");
inline const QString adapterPathPrefix = QStringLiteral("/org/bluez/hci");

inline const QString objectManager = QStringLiteral("org.freedesktop.DBus.ObjectManager");
inline const QString properties = QStringLiteral("org.freedesktop.DBus.Properties");
inline const QString adapter = QStringLiteral("org.bluez.Adapter1");
inline const QString device = QStringLiteral("org.bluez.Device1");
inline const QString agentManager = QStringLiteral("org.bluez.AgentManager1");
inline const QString agent = QStringLiteral("org.bluez.Agent1");

inline const QString rejected = QStringLiteral("org.bluez.Error.Rejected");

} // namespace kelvane::bluez::names
