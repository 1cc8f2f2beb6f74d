// The listing floor: connect to the system bus, one GetManagedObjects at "/",
// demarshalled into the usual nested QMap. Built twice:
//   floor_gmo   (WITH_JSON=0) counts adapters and devices and prints the counts;
//   floor_json  (WITH_JSON=1) also writes every adapter and device as one
//               compact JSON line, which is what kelvane -l must at least do.
#include "snapshot.h"

int main(int argc, char **argv) {
    QCoreApplication application(argc, argv);
    QDBusConnection bus = QDBusConnection::systemBus();
    ManagedObjects objects;
    if (const int status = floors::firstListing(bus, objects))
        return status;
#if WITH_JSON
    QJsonArray adapters, devices;
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const QString path = it.key().path();
        const auto adapter = it->constFind(floors::adapterInterface);
        if (adapter != it->cend())
            adapters.append(floors::adapterJson(path, *adapter));
        const auto device = it->constFind(floors::deviceInterface);
        if (device != it->cend())
            devices.append(floors::deviceJson(path, *device));
    }
    QJsonObject root;
    root.insert(QStringLiteral("adapters"), adapters);
    root.insert(QStringLiteral("devices"), devices);
    floors::printLine(root);
#else
    int adapters = 0, devices = 0;
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        adapters += it->contains(floors::adapterInterface);
        devices += it->contains(floors::deviceInterface);
    }
    std::printf("%d adapters, %d devices\n", adapters, devices);
#endif
    return 0;
}
