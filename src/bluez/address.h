#pragma once

#include <QString>

namespace kelvane::bluez {

// Upper case with '-' turned into ':'; nothing else changes (blanks stay).
QString normalizeAddress(const QString &address);

// XX:XX:XX:XX:XX:XX with upper-case hexadecimal digits, nothing around it.
bool isValidAddress(const QString &address);

} // namespace kelvane::bluez
