#pragma once

#include <QJsonArray>
#include <QString>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::classify {

// The 16-bit short form of a service UUID: the low 16 bits of its first
// hexadecimal group; nothing when that group is not a 32-bit hex number.
std::optional<std::uint16_t> shortUuid(const QString &uuid);

// The UTF-8 UUID texts as a JSON array of strings, in order.
QJsonArray uuidArray(const std::vector<std::string> &uuids);

} // namespace kelvane::classify
