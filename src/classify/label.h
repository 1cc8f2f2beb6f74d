#pragma once

#include <QString>

namespace kelvane::classify {

// The first non-empty of the two texts, else "[unknown]".
QString displayLabel(const QString &first, const QString &second);

} // namespace kelvane::classify
