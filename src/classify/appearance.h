#pragma once

#include <QString>

#include <cstdint>
#include <optional>

namespace kelvane::classify {

// Named HID appearances (0x03C0-0x03C4); a null string for every other value.
QString appearanceDescription(std::uint16_t appearance);

// A freedesktop-style icon name derived from the appearance alone; never empty.
QString iconNameForAppearance(const std::optional<std::uint16_t> &appearance);

} // namespace kelvane::classify
