#pragma once

#include <QString>

#include <cstdint>
#include <optional>

namespace kelvane::classify {

// The 16-bit short form of a service UUID: the low 16 bits of its first
// group, which must be plain hexadecimal digits worth at most 32 bits.
std::optional<std::uint16_t> shortUuid(const QString &uuid);

} // namespace kelvane::classify
