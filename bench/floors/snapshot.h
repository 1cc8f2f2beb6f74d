// What the floor programs share: one GetManagedObjects at "/", demarshalled
// the way any QtDBus client would, and the JSON of one device.
//
// The floors are the least a Qt client can do for kelvane's result, so they
// use the same libraries (QtCore, QtDBus, QJsonDocument) and nothing clever:
// the difference between kelvane and a floor is kelvane's own overhead.
#pragma once

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtDBus/QtDBus>

#include <cstdio>

using Interfaces = QMap<QString, QVariantMap>;
using ManagedObjects = QMap<QDBusObjectPath, Interfaces>;
Q_DECLARE_METATYPE(Interfaces)
Q_DECLARE_METATYPE(ManagedObjects)

namespace floors {

inline const QString bluez = QStringLiteral("org.bluez");
inline const QString adapterInterface = QStringLiteral("org.bluez.Adapter1");
inline const QString deviceInterface = QStringLiteral("org.bluez.Device1");

inline void registerTypes() {
    qDBusRegisterMetaType<Interfaces>();
    qDBusRegisterMetaType<ManagedObjects>();
}

// A blocking call to org.bluez; false (and a line on stderr) on an error reply.
inline bool callBluez(QDBusConnection &bus, const QString &path, const QString &interface,
                      const QString &method, const QVariantList &arguments = {},
                      QDBusMessage *replyOut = nullptr) {
    QDBusMessage call = QDBusMessage::createMethodCall(bluez, path, interface, method);
    call.setArguments(arguments);
    const QDBusMessage reply = bus.call(call, QDBus::Block, 120000);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        std::fprintf(stderr, "%s: %s\n", qPrintable(method), qPrintable(reply.errorMessage()));
        return false;
    }
    if (replyOut)
        *replyOut = reply;
    return true;
}

inline bool managedObjects(QDBusConnection &bus, ManagedObjects &objects) {
    QDBusMessage reply;
    if (!callBluez(bus, QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.ObjectManager"),
                   QStringLiteral("GetManagedObjects"), {}, &reply) ||
        reply.arguments().isEmpty())
        return false;
    objects.clear();
    reply.arguments().constFirst().value<QDBusArgument>() >> objects;
    return true;
}

// The start every client floor shares: the system bus and one listing at "/".
// 0, or the exit status to give up with (2 no bus, 3 no listing).
inline int firstListing(QDBusConnection &bus, ManagedObjects &objects) {
    if (!bus.isConnected()) {
        std::fprintf(stderr, "no system bus\n");
        return 2;
    }
    registerTypes();
    return managedObjects(bus, objects) ? 0 : 3;
}

inline QJsonValue optionalNumber(const QVariantMap &properties, const QString &name) {
    const auto it = properties.constFind(name);
    return it == properties.cend() ? QJsonValue() : QJsonValue(it->toLongLong());
}

// Seventeen members, as many as kelvane writes per device.
inline QJsonObject deviceJson(const QString &path, const QVariantMap &p) {
    QJsonObject o;
    o.insert(QStringLiteral("path"), path);
    o.insert(QStringLiteral("adapter"),
             qvariant_cast<QDBusObjectPath>(p.value(QStringLiteral("Adapter"))).path());
    o.insert(QStringLiteral("address"), p.value(QStringLiteral("Address")).toString());
    o.insert(QStringLiteral("address_type"), p.value(QStringLiteral("AddressType")).toString());
    o.insert(QStringLiteral("name"), p.value(QStringLiteral("Name")).toString());
    o.insert(QStringLiteral("alias"), p.value(QStringLiteral("Alias")).toString());
    o.insert(QStringLiteral("icon"), p.value(QStringLiteral("Icon")).toString());
    o.insert(QStringLiteral("class"), optionalNumber(p, QStringLiteral("Class")));
    o.insert(QStringLiteral("appearance"), optionalNumber(p, QStringLiteral("Appearance")));
    o.insert(QStringLiteral("rssi"), optionalNumber(p, QStringLiteral("RSSI")));
    o.insert(QStringLiteral("tx_power"), optionalNumber(p, QStringLiteral("TxPower")));
    o.insert(QStringLiteral("paired"), p.value(QStringLiteral("Paired")).toBool());
    o.insert(QStringLiteral("trusted"), p.value(QStringLiteral("Trusted")).toBool());
    o.insert(QStringLiteral("blocked"), p.value(QStringLiteral("Blocked")).toBool());
    o.insert(QStringLiteral("connected"), p.value(QStringLiteral("Connected")).toBool());
    o.insert(QStringLiteral("services_resolved"),
             p.value(QStringLiteral("ServicesResolved")).toBool());
    o.insert(QStringLiteral("uuids"),
             QJsonArray::fromStringList(p.value(QStringLiteral("UUIDs")).toStringList()));
    return o;
}

inline QJsonObject adapterJson(const QString &path, const QVariantMap &p) {
    QJsonObject o;
    o.insert(QStringLiteral("path"), path);
    o.insert(QStringLiteral("address"), p.value(QStringLiteral("Address")).toString());
    o.insert(QStringLiteral("name"), p.value(QStringLiteral("Name")).toString());
    o.insert(QStringLiteral("alias"), p.value(QStringLiteral("Alias")).toString());
    o.insert(QStringLiteral("powered"), p.value(QStringLiteral("Powered")).toBool());
    o.insert(QStringLiteral("discovering"), p.value(QStringLiteral("Discovering")).toBool());
    return o;
}

inline void printLine(const QJsonObject &root) {
    const QByteArray line = QJsonDocument(root).toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
}

} // namespace floors
