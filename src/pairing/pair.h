#pragma once

#include <string>

namespace kelvane::pairing {

// The -p operation: brings the device at `address` (as typed; '-' or ':'
// separators, any letter case) to paired, trusted and connected on the first
// powered adapter. Discovers the device when BlueZ does not know it yet and
// retries once after a "Page Timeout". On failure `error` holds the one
// message for the result document.
bool pairTrustConnect(const std::string &address, std::string &error);

} // namespace kelvane::pairing
