#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::classify {

// A device is HID when it offers the HID or HID-over-GATT service, has an
// appearance in the HID category, or a Class of Device of major class Peripheral.
bool isHidDevice(const std::optional<std::uint16_t> &appearance,
                 const std::vector<std::string> &uuids,
                 const std::optional<std::uint32_t> &classOfDevice);

} // namespace kelvane::classify
