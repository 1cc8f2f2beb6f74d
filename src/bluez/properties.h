#pragma once

#include "bluez/objectmap.h"
#include "core/expected.h"

#include <QString>
#include <QVariant>

namespace kelvane::bluez {

// Properties.Set of a boolean property to true, traced as "Properties.Set".
core::Status setPropertyTrue(const QString &path, const QString &interface,
                             const QString &property);

// One property through Properties.Get (untraced). It fails when BlueZ has no
// such object or property; a value of the wrong type reads as false/0/"".
core::Expected<QVariant> readProperty(const QString &path, const QString &interface,
                                      const QString &property);

// All properties of one interface through Properties.GetAll (untraced).
core::Expected<PropertyMap> readAllProperties(const QString &path, const QString &interface);

} // namespace kelvane::bluez
