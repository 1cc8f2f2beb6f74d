#include "bluez/discovery.h"

#include "bluez/call.h"
#include "bluez/names.h"

namespace kelvane::bluez {

core::Status startDiscovery(const QString &adapterPath) {
    const TextDictionary filter{{QStringLiteral("Transport"), QStringLiteral("auto")}};
    const core::Status filtered = statusOf(callBluez({adapterPath,
                                                      names::adapter,
                                                      QStringLiteral("SetDiscoveryFilter"),
                                                      {filter},
                                                      QStringLiteral("Transport=auto")}));
    if (!filtered)
        return filtered;
    return statusOf(callBluez({adapterPath, names::adapter, QStringLiteral("StartDiscovery")}));
}

void stopDiscovery(const QString &adapterPath) {
    (void)callBluez({adapterPath, names::adapter, QStringLiteral("StopDiscovery")});
}

core::Status removeDevice(const QString &adapterPath, const QString &devicePath) {
    if (adapterPath.isEmpty() || devicePath.isEmpty())
        return core::failure(QStringLiteral("invalid device path"));
    return statusOf(callBluez({adapterPath,
                               names::adapter,
                               QStringLiteral("RemoveDevice"),
                               {ObjectPath{devicePath}},
                               devicePath}));
}

} // namespace kelvane::bluez
