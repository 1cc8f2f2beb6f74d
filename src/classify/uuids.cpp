#include "classify/uuids.h"

namespace kelvane::classify {

std::optional<std::uint16_t> shortUuid(const QString &uuid) {
    const QString text = uuid.trimmed().toLower();
    if (text.isEmpty())
        return std::nullopt;
    const QString head = text.section(QLatin1Char('-'), 0, 0);
    bool ok = false;
    const uint value = head.toUInt(&ok, 16);
    if (!ok)
        return std::nullopt;
    return static_cast<std::uint16_t>(value & 0xFFFFu);
}

QJsonArray uuidArray(const std::vector<std::string> &uuids) {
    QJsonArray array;
    for (const std::string &uuid : uuids)
        array.append(QString::fromUtf8(uuid.data(), static_cast<int>(uuid.size())));
    return array;
}

} // namespace kelvane::classify
