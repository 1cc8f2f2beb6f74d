#pragma once

#include "core/records.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace kelvane::result {

// The devices of a scan's polls. Unlike the result document's merge, the
// latest poll always wins, RSSI or not: a scan reports what a device looked
// like when it was last seen, and a device no longer seen is still reported.
// Kept in the order first seen; indexed by address, so each poll costs its
// own size, not that times what was seen.
class LatestByAddress {
public:
    void merge(std::vector<core::DeviceInfo> poll);
    std::vector<core::DeviceInfo> take() { return std::move(m_seen); }

private:
    std::vector<core::DeviceInfo> m_seen;
    std::unordered_map<std::string, size_t> m_index;
};

} // namespace kelvane::result
