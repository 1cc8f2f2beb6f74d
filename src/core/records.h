#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::core {

// One Bluetooth device as seen on the bus or in the store. Texts are UTF-8.
struct DeviceInfo {
    std::string path;
    std::string address;
    std::string name;
    std::string alias;
    std::string icon;
    std::optional<std::uint32_t> classOfDevice;
    std::optional<std::uint16_t> appearance;
    std::vector<std::string> uuids;
    bool paired = false;
    bool trusted = false;
    bool connected = false;
    std::optional<std::int16_t> rssi;
};

// One local adapter. `id` is N of /org/bluez/hciN, or -1 for other paths.
struct AdapterInfo {
    std::string path;
    std::int32_t id = 0;
    std::string address;
    std::string name;
    std::string alias;
    bool powered = false;
    bool discovering = false;
};

} // namespace kelvane::core
