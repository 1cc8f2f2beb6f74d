#pragma once

#include "core/expected.h"
#include "core/records.h"

#include <string>
#include <vector>

namespace kelvane::result {

using core::AdapterInfo;
using core::DeviceInfo;

enum class ResultStatus { Ok = 0, Partial = 1, Error = 2 };

// Strict weak order of the device list: devices with an RSSI first, strongest
// first; then the others by address, compared as unsigned bytes.
bool deviceSortsBefore(const DeviceInfo &a, const DeviceInfo &b);

// The one JSON object a run prints.
class ResultDocument {
public:
    const std::vector<AdapterInfo> &adapters() const { return m_adapters; }
    const std::vector<DeviceInfo> &devices() const { return m_devices; }
    ResultStatus status() const { return m_status; }
    const std::string &error() const { return m_error; }

    void setStatus(ResultStatus status) { m_status = status; }
    void setError(const std::string &error) { m_error = error; }
    void setAdapters(const std::vector<AdapterInfo> &adapters) { m_adapters = adapters; }

    // Adds devices by address (exact bytes); an existing entry is replaced
    // only by a device with a stronger RSSI. The list is re-sorted afterwards.
    void mergeDevices(const std::vector<DeviceInfo> &incoming);

    // One more failure of a document that still reports what it has: status
    // Partial, and `report` appended to the error text after a "; ".
    void addPartialFailure(const std::string &report);

private:
    std::vector<AdapterInfo> m_adapters;
    std::vector<DeviceInfo> m_devices;
    ResultStatus m_status = ResultStatus::Ok;
    std::string m_error;
};

// A document without adapters or devices: Ok, or Error with the failure's text.
ResultDocument simpleResult(const core::Status &status);

} // namespace kelvane::result
