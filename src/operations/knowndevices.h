#pragma once

#include "result/resultdocument.h"

namespace kelvane::operations {

// The -l operation: stored devices enriched with their live state, and the
// adapters the store names.
result::ResultDocument listKnownDevices();

} // namespace kelvane::operations
