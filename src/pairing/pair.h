#pragma once

#include "core/expected.h"

#include <QString>

#include <string>

namespace kelvane::pairing {

// The -p operation: brings the device at `address` (as typed; '-' or ':'
// separators, any letter case) to paired, trusted and connected on the first
// powered adapter. Discovers the device when BlueZ does not know it yet and
// retries once after a "Page Timeout". A failure carries the one message for
// the result document.
core::Status pairTrustConnect(const std::string &address);

// The address -p acts on: the typed one normalised (blanks are not
// trimmed), or the failure "invalid Bluetooth address: <as typed>".
core::Expected<QString> pairAddress(const std::string &typedAddress);

} // namespace kelvane::pairing
