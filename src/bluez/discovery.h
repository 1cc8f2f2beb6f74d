#pragma once

#include <QString>

namespace kelvane::bluez {

// SetDiscoveryFilter(Transport=auto), then StartDiscovery.
bool startDiscovery(const QString &adapterPath, QString &error);

// Best effort: the outcome is only traced.
void stopDiscovery(const QString &adapterPath);

bool removeDevice(const QString &adapterPath, const QString &devicePath, QString *error = nullptr);

} // namespace kelvane::bluez
