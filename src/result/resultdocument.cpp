#include "result/resultdocument.h"

#include "core/utf8.h"

#include <algorithm>

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
    for (const DeviceInfo &device : incoming) {
        auto existing = std::find_if(m_devices.begin(), m_devices.end(), [&](const DeviceInfo &d) {
            return d.address == device.address;
        });
        if (existing == m_devices.end())
            m_devices.push_back(device);
        else if (replacesExisting(device, *existing))
            *existing = device;
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
