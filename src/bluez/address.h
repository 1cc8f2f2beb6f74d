#pragma once

#include <QString>

namespace kelvane::bluez {

// Upper case with '-' turned into ':'; nothing else changes (blanks stay).
QString normalizeAddress(const QString &address);

// XX:XX:XX:XX:XX:XX with upper-case hexadecimal digits, nothing around it.
bool isValidAddress(const QString &address);

// The one rule for "the same device address", wherever two addresses meet
// (typed, reported by BlueZ, named by the store): equal once surrounding
// blanks are dropped and both are normalised.
bool sameAddress(const QString &a, const QString &b);

// The form under which sameAddress compares: two addresses are the same
// exactly when their keys are equal, so a key can index a table.
QString addressKey(const QString &address);

} // namespace kelvane::bluez
