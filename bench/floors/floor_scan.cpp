// The scan floor: the bus calls a ten-second scan of one adapter needs and
// no others, made by a plain QtDBus client.
//
//   GetManagedObjects                    find the first adapter (powered)
//   SetDiscoveryFilter {Transport: auto}
//   StartDiscovery
//   10 x (sleep 1 s, GetManagedObjects)  each poll demarshalled and the
//                                        adapter's devices turned into JSON,
//                                        the latest object per address kept
//   StopDiscovery
//
// then one compact JSON line with the devices last seen. Building the JSON
// on every poll is what a simple client does (and what the first
// scan figures used); kelvane only has to do less.
#include "snapshot.h"

#include <QThread>

int main(int argc, char **argv) {
    QCoreApplication application(argc, argv);
    QDBusConnection bus = QDBusConnection::systemBus();
    ManagedObjects objects;
    if (const int status = floors::firstListing(bus, objects))
        return status;
    QString adapter;
    for (auto it = objects.cbegin(); it != objects.cend() && adapter.isEmpty(); ++it)
        if (it->contains(floors::adapterInterface))
            adapter = it.key().path();
    if (adapter.isEmpty()) {
        std::fprintf(stderr, "no adapter\n");
        return 3;
    }
    const QString adapterInterface = floors::adapterInterface;
    QVariantMap filter;
    filter.insert(QStringLiteral("Transport"), QStringLiteral("auto"));
    if (!floors::callBluez(bus, adapter, adapterInterface, QStringLiteral("SetDiscoveryFilter"),
                           {filter}) ||
        !floors::callBluez(bus, adapter, adapterInterface, QStringLiteral("StartDiscovery")))
        return 3;
    const QString prefix = adapter + QLatin1Char('/');
    QMap<QString, QJsonObject> seen; // address -> latest JSON
    for (int poll = 0; poll < 10; ++poll) {
        QThread::sleep(1);
        if (!floors::managedObjects(bus, objects))
            return 3;
        for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
            const QString path = it.key().path();
            if (!path.startsWith(prefix))
                continue;
            const auto device = it->constFind(floors::deviceInterface);
            if (device == it->cend())
                continue;
            seen.insert(device->value(QStringLiteral("Address")).toString(),
                        floors::deviceJson(path, *device));
        }
    }
    floors::callBluez(bus, adapter, adapterInterface, QStringLiteral("StopDiscovery"));
    QJsonArray devices;
    for (const QJsonObject &device : seen)
        devices.append(device);
    QJsonObject root;
    root.insert(QStringLiteral("devices"), devices);
    floors::printLine(root);
    return 0;
}
