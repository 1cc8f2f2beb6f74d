#include "result/resultdocument.h"

#include "core/utf8.h"

#include <algorithm>
#include <unordered_map>

namespace kelvane::result {

bool deviceSortsBefore(const DeviceInfo &a, const DeviceInfo &b) {
    if (a.rssi)
        return !b.rssi || *a.rssi > *b.rssi;
    if (b.rssi)
        return false;
    // std::string compares through char_traits<char>, i.e. memcmp: unsigned bytes.
    return a.address < b.address;
}

namespace {

bool replacesExisting(const DeviceInfo &incoming, const DeviceInfo &existing) {
    return incoming.rssi && (!existing.rssi || *incoming.rssi > *existing.rssi);
}

} // namespace

void ResultDocument::mergeDevices(const std::vector<DeviceInfo> &incoming) {
    // Where the first device of each address is: thousands of devices merge
    // in linear time.
    std::unordered_map<std::string, size_t> byAddress;
    byAddress.reserve(m_devices.size() + incoming.size());
    for (size_t i = 0; i < m_devices.size(); ++i)
        byAddress.emplace(m_devices[i].address, i);
    for (const DeviceInfo &device : incoming) {
        const auto [at, added] = byAddress.emplace(device.address, m_devices.size());
        if (added)
            m_devices.push_back(device);
        else if (replacesExisting(device, m_devices[at->second]))
            m_devices[at->second] = device;
    }
    std::sort(m_devices.begin(), m_devices.end(), deviceSortsBefore);
}

void ResultDocument::addPartialFailure(const std::string &report) {
    m_status = ResultStatus::Partial;
    m_error = m_error.empty() ? report : m_error + "; " + report;
}

ResultDocument simpleResult(const core::Status &status) {
    ResultDocument document;
    if (!status) {
        document.setStatus(ResultStatus::Error);
        document.setError(core::toUtf8(status.error().message));
    }
    return document;
}

} // namespace kelvane::result
