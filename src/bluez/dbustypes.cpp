#include "bluez/dbustypes.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>

namespace kelvane::bluez {

void registerDbusTypes() {
    static const bool registered = [] {
        qRegisterMetaType<QDBusArgument>();
        qRegisterMetaType<QDBusObjectPath>();
        qRegisterMetaType<QDBusVariant>();
        qDBusRegisterMetaType<PropertyMap>();
        qDBusRegisterMetaType<InterfaceMap>();
        qDBusRegisterMetaType<ManagedObjectMap>();
        return true;
    }();
    (void)registered;
}

} // namespace kelvane::bluez
