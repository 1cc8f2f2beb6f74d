#include "classify/label.h"

namespace kelvane::classify {

QString displayLabel(const QString &first, const QString &second) {
    if (!first.isEmpty())
        return first;
    if (!second.isEmpty())
        return second;
    return QStringLiteral("[unknown]");
}

} // namespace kelvane::classify
