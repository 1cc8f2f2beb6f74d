#pragma once

#include "bluez/dbustypes.h"

#include <QString>

namespace kelvane::bluez {

// One GetManagedObjects call on `path`. On failure `error` receives the bus
// error text; `quiet` traces the failure as a debug note instead of an outcome.
ManagedObjectMap fetchManagedObjects(const QString &path, QString &error, bool quiet);

// BlueZ's object tree: "/" first, then "/org/bluez", then probing the adapter
// paths hci0..hci15. An empty result comes with the first useful error text.
ManagedObjectMap loadManagedObjects(QString *error = nullptr);

// Value-or-empty lookup of one interface's properties in a snapshot.
PropertyMap interfaceProperties(const ManagedObjectMap &objects, const QString &path,
                                const QString &interface);

} // namespace kelvane::bluez
