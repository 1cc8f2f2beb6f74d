#include "classify/hid.h"

#include "classify/uuids.h"

#include <QString>

namespace kelvane::classify {

namespace {

constexpr std::uint16_t hidService = 0x1124;
constexpr std::uint16_t hidOverGattService = 0x1812;

} // namespace

bool isHidDevice(const std::optional<std::uint16_t> &appearance,
                 const std::vector<std::string> &uuids,
                 const std::optional<std::uint32_t> &classOfDevice) {
    for (const std::string &uuid : uuids) {
        const auto value = shortUuid(QString::fromUtf8(uuid.data(), static_cast<int>(uuid.size())));
        if (value && (*value == hidService || *value == hidOverGattService))
            return true;
    }
    if (appearance && (*appearance >> 6) == 15)
        return true;
    return classOfDevice && (*classOfDevice & 0x1F00u) == 0x0500u;
}

} // namespace kelvane::classify
