#include "bluez/snapshot.h"

#include "bluez/call.h"
#include "bluez/names.h"
#include "bluez/properties.h"
#include "core/trace.h"

#include <vector>

namespace kelvane::bluez {

namespace {

constexpr int adapterProbeCount = 16;

core::Expected<ManagedObjectMap> fetchManagedObjects(const QString &path, Tracing tracing) {
    const auto reply =
        callBluez({path, names::objectManager, QStringLiteral("GetManagedObjects")}, tracing);
    if (!reply)
        return reply.error();
    return readManagedObjects(reply->get());
}

// The last resort when no object manager answers. A probe finds adapters
// only, with the five properties an adapter record needs.
ManagedObjectMap probeAdapters() {
    static const char *const probed[] = {"Address", "Name", "Alias", "Powered", "Discovering"};
    ManagedObjectMap objects;
    for (int i = 0; i < adapterProbeCount; ++i) {
        const QString path = names::adapterPathPrefix + QString::number(i);
        const auto all = readAllProperties(path, names::adapter);
        if (!all && endsFallbackChain(all.error()))
            break;
        if (!all)
            continue;
        PropertyMap properties;
        for (const char *name : probed)
            properties.insert(QLatin1String(name), all->value(QLatin1String(name)));
        objects[path].insert(names::adapter, properties);
    }
    return objects;
}

bool chainEnded(const std::vector<core::Error> &failures) {
    return !failures.empty() && endsFallbackChain(failures.back());
}

core::Error firstReported(const std::vector<core::Error> &failures) {
    for (const core::Error &failure : failures) {
        if (!failure.message.isEmpty())
            return failure;
    }
    return core::failure(QStringLiteral("no BlueZ objects found"));
}

} // namespace

core::Expected<ManagedObjectMap> loadManagedObjects() {
    std::vector<core::Error> failures;
    const auto atRoot = fetchManagedObjects(QStringLiteral("/"), Tracing::Traced);
    if (atRoot && !atRoot->isEmpty())
        return *atRoot;
    if (!atRoot)
        failures.push_back(atRoot.error());

    if (!chainEnded(failures)) {
        const auto belowBluez = fetchManagedObjects(names::bluezRoot, Tracing::FailureAsNote);
        if (belowBluez && !belowBluez->isEmpty())
            return *belowBluez;
        if (!belowBluez) {
            core::DbusTrace::debug("GetManagedObjects unavailable at " + names::bluezRoot.toUtf8());
            failures.push_back(belowBluez.error());
        }
    }
    if (!chainEnded(failures)) {
        ManagedObjectMap probed = probeAdapters();
        if (!probed.isEmpty())
            return probed;
    }
    return firstReported(failures);
}

} // namespace kelvane::bluez
