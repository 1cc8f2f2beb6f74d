#pragma once

#include "core/records.h"

#include <string>

namespace kelvane::operations {

// Asks BlueZ to remove the device with this address (as typed). `removed`
// receives the device's record as it was just before the removal.
bool forgetDevice(std::string &error, const std::string &address,
                  core::DeviceInfo *removed = nullptr);

} // namespace kelvane::operations
