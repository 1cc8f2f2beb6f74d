#include "bluez/snapshot.h"

#include "bluez/names.h"
#include "bluez/properties.h"
#include "core/trace.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>

namespace kelvane::bluez {

namespace DbusTrace = core::DbusTrace;

namespace {

const QString getManagedObjects = QStringLiteral("GetManagedObjects");
constexpr int adapterProbeCount = 16;

// A daemon that answers with the wrong signature yields an empty map rather
// than whatever QDBusArgument makes of a type mismatch.
ManagedObjectMap demarshalObjects(const QDBusMessage &reply) {
    ManagedObjectMap objects;
    if (reply.arguments().isEmpty())
        return objects;
    const QVariant first = reply.arguments().constFirst();
    if (!first.canConvert<QDBusArgument>())
        return objects;
    const QDBusArgument argument = first.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a{oa{sa{sv}}}"))
        return objects;
    argument >> objects;
    return objects;
}

// The last resort when no object manager answers: introspect hci0..hci15.
ManagedObjectMap probeAdapters() {
    static const char *const adapterProperties[] = {"Address", "Name", "Alias", "Powered",
                                                    "Discovering"};
    ManagedObjectMap objects;
    for (int i = 0; i < adapterProbeCount; ++i) {
        const QString path = names::adapterPathPrefix + QString::number(i);
        // Asked before the proxy exists, so a missing path costs one call.
        if (!bluezObjectDeclares(path, names::adapter))
            continue;
        QDBusInterface proxy(names::service, path, names::adapter, QDBusConnection::systemBus());
        PropertyMap properties;
        for (const char *name : adapterProperties)
            properties.insert(QLatin1String(name), readProxyProperty(proxy, name));
        objects[QDBusObjectPath(path)].insert(names::adapter, properties);
    }
    return objects;
}

} // namespace

ManagedObjectMap fetchManagedObjects(const QString &path, QString &error, bool quiet) {
    registerDbusTypes();
    DbusTrace::call(names::service, path, names::objectManager, getManagedObjects, QString());
    const QDBusMessage message = QDBusMessage::createMethodCall(
        names::service, path, names::objectManager, getManagedObjects);
    const QDBusMessage reply = QDBusConnection::systemBus().call(message, QDBus::Block, -1);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        if (quiet)
            DbusTrace::debug("GetManagedObjects unavailable at " + path.toUtf8());
        else
            DbusTrace::reply(getManagedObjects, false, reply.errorMessage());
        error = reply.errorMessage();
        return {};
    }
    DbusTrace::reply(getManagedObjects, true, QString());
    return demarshalObjects(reply);
}

ManagedObjectMap loadManagedObjects(QString *error) {
    QString rootError;
    ManagedObjectMap objects = fetchManagedObjects(QStringLiteral("/"), rootError, false);
    if (!objects.isEmpty()) {
        if (error)
            error->clear();
        return objects;
    }
    QString bluezError;
    objects = fetchManagedObjects(names::bluezRoot, bluezError, true);
    if (objects.isEmpty() && error)
        *error = !rootError.isEmpty() ? rootError : bluezError;
    if (!objects.isEmpty())
        return objects;

    objects = probeAdapters();
    if (objects.isEmpty() && error && error->isEmpty())
        *error = !rootError.isEmpty() ? rootError : QStringLiteral("no BlueZ objects found");
    return objects;
}

PropertyMap interfaceProperties(const ManagedObjectMap &objects, const QString &path,
                                const QString &interface) {
    return objects.value(QDBusObjectPath(path)).value(interface);
}

} // namespace kelvane::bluez
