#pragma once

namespace kelvane::operations {

// The -l operation: stored devices enriched with their live state. Prints its
// own result line and returns the exit status.
int listKnownDevices();

} // namespace kelvane::operations
