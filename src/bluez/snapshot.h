#pragma once

#include "bluez/objectmap.h"
#include "core/expected.h"

namespace kelvane::bluez {

// BlueZ's object tree, taken now: GetManagedObjects at "/", then at
// "/org/bluez", then the adapters hci0..hci15 asked one by one. Never empty:
// without objects it fails with the first error worth reporting, else
// "no BlueZ objects found". A chain that cannot succeed (BlueZ has no owner
// or does not answer) is not asked to the end.
core::Expected<ManagedObjectMap> loadManagedObjects();

} // namespace kelvane::bluez
