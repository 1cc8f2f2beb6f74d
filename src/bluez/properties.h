#pragma once

#include <QString>

namespace kelvane::bluez {

// Sets a boolean property to true through org.freedesktop.DBus.Properties.Set.
bool setPropertyTrue(const QString &path, const QString &interface, const QString &property,
                     QString *error = nullptr);

// Reads a boolean property through a proxy; an unreadable property is false.
// Untraced, like every property read.
bool readBoolProperty(const QString &path, const QString &interface, const QString &property);

} // namespace kelvane::bluez
