#include "bluez/address.h"

#include <QRegularExpression>

namespace kelvane::bluez {

QString normalizeAddress(const QString &address) {
    return address.toUpper().replace(QLatin1Char('-'), QLatin1Char(':'));
}

bool isValidAddress(const QString &address) {
    // Anchored on the whole text: a bare '$' would also accept a trailing newline.
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("^([0-9A-F]{2}:){5}[0-9A-F]{2}$")));
    return pattern.match(address).hasMatch();
}

bool sameAddress(const QString &a, const QString &b) {
    return addressKey(a) == addressKey(b);
}

QString addressKey(const QString &address) {
    return normalizeAddress(address.trimmed());
}

} // namespace kelvane::bluez
