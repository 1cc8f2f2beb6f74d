#pragma once

#include "core/expected.h"
#include "core/records.h"
#include "result/resultdocument.h"

#include <vector>

namespace kelvane::operations {

// The -e operation: every adapter, scanned one after the other for ten
// seconds; an adapter that fails is reported while the others still count.
result::ResultDocument scan();

// Powers the adapter, discovers for `seconds` one-second polls and returns
// what it saw under the adapter, merged by address (latest poll wins), sorted.
core::Expected<std::vector<core::DeviceInfo>> scanAdapter(const core::AdapterInfo &adapter,
                                                          int seconds);

} // namespace kelvane::operations
