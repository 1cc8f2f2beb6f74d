#include "result/latestbyaddress.h"

namespace kelvane::result {

void LatestByAddress::merge(std::vector<core::DeviceInfo> poll) {
    for (core::DeviceInfo &device : poll) {
        const auto [at, added] = m_index.emplace(device.address, m_seen.size());
        if (added)
            m_seen.push_back(std::move(device));
        else
            m_seen[at->second] = std::move(device);
    }
}

} // namespace kelvane::result
