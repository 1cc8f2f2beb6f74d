#include "classify/uuids.h"

namespace kelvane::classify {

namespace {

int hexDigitValue(QChar c) {
    if (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
        return c.unicode() - '0';
    if (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
        return c.unicode() - 'a' + 10;
    return -1;
}

} // namespace

// Digits only: QString::toUInt would also take "0x", a sign and blanks, so
// "0x1124" would pass for the HID service.
std::optional<std::uint16_t> shortUuid(const QString &uuid) {
    const QString head = uuid.trimmed().toLower().section(QLatin1Char('-'), 0, 0);
    if (head.isEmpty())
        return std::nullopt;
    std::uint64_t value = 0;
    for (const QChar c : head) {
        const int digit = hexDigitValue(c);
        if (digit < 0)
            return std::nullopt;
        value = value * 16 + static_cast<std::uint64_t>(digit);
        if (value > 0xFFFFFFFFu)
            return std::nullopt;
    }
    return static_cast<std::uint16_t>(value & 0xFFFFu);
}

} // namespace kelvane::classify
