#pragma once

#include "core/records.h"

#include <string>
#include <vector>

namespace kelvane::operations {

// Powers the adapter, discovers for `seconds` one-second polls and returns
// what it saw under the adapter, merged by address (latest poll wins), sorted.
std::vector<core::DeviceInfo> scanAdapter(const std::string &adapterPath, std::string &error,
                                            int seconds);

} // namespace kelvane::operations
