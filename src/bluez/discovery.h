#pragma once

#include "core/expected.h"

#include <QString>

namespace kelvane::bluez {

// SetDiscoveryFilter(Transport=auto), then StartDiscovery.
core::Status startDiscovery(const QString &adapterPath);

// Best effort: the outcome is only traced.
void stopDiscovery(const QString &adapterPath);

core::Status removeDevice(const QString &adapterPath, const QString &devicePath);

} // namespace kelvane::bluez
