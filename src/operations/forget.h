#pragma once

#include "core/expected.h"
#include "result/resultdocument.h"

#include <QString>

#include <string>

namespace kelvane::operations {

// The address -f acts on: the typed one trimmed and normalised, or the
// failure "invalid Bluetooth address: <as typed>".
core::Expected<QString> forgetAddress(const std::string &typedAddress);

// The -f operation. The typed address is trimmed and normalised once; that
// one form goes to BlueZ and, when BlueZ cannot remove the device, to the
// store. An address that is not valid deletes nothing.
result::ResultDocument forget(const std::string &typedAddress);

} // namespace kelvane::operations
