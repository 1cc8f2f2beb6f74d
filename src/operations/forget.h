#pragma once

#include "result/resultdocument.h"

#include <string>

namespace kelvane::operations {

// The -f operation. The typed address is trimmed and normalised once; that
// one form goes to BlueZ and, when BlueZ cannot remove the device, to the
// store. An address that is not valid deletes nothing.
result::ResultDocument forget(const std::string &typedAddress);

} // namespace kelvane::operations
