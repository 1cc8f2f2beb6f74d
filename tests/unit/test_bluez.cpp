#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/devices.h"
#include "bluez/properties.h"
#include "core/trace.h"
#include "stdcapture.h"

#include <QDBusArgument>
#include <QtTest>

#include <functional>

using namespace kelvane::bluez;
namespace DbusTrace = kelvane::core::DbusTrace;
using kelvane::core::DeviceInfo;

Q_DECLARE_METATYPE(std::function<void()>)

namespace {

const QString device1 = "org.bluez.Device1";

// The record as "address|name|alias|icon|paired trusted connected|class|appearance|rssi|uuids",
// "-" for an absent number.
QString describe(const DeviceInfo &d) {
    const auto text = [](const std::string &s) { return QString::fromStdString(s); };
    const auto number = [](const auto &v) { return v ? QString::number(*v) : QString("-"); };
    QStringList uuids;
    for (const std::string &uuid : d.uuids)
        uuids << text(uuid);
    const QString flags = QString("%1%2%3").arg(d.paired).arg(d.trusted).arg(d.connected);
    return QString("%1|%2|%3|%4|%5|%6|%7|%8|%9")
        .arg(text(d.address), text(d.name), text(d.alias), text(d.icon), flags,
             number(d.classOfDevice), number(d.appearance), number(d.rssi), uuids.join(','));
}

QVariant intArrayArgument() {
    QDBusArgument argument;
    argument.beginArray(qMetaTypeId<int>());
    argument << 1 << 2;
    argument.endArray();
    return QVariant::fromValue(argument);
}

} // namespace

class TestBluez : public QObject {
    Q_OBJECT

private slots:
    void address() {
        const QString mac = "AA:BB:CC:DD:EE:FF";
        QVERIFY(isValidAddress(mac));
        QCOMPARE(normalizeAddress("aA-Bb:cC-dd:EE-fF"), mac);
        QVERIFY(!isValidAddress("aA-Bb:cC-dd:EE-fF"));
        QCOMPARE(normalizeAddress(" aa:bb:cc:dd:ee:ff\n"), " " + mac + "\n"); // blanks stay
        // Not even normalising makes these valid.
        for (const char *bad : {" aa:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:ff\n", "aa:bb:cc:dd:ee",
                                "aa:bb:cc:dd:ee:fg", "aabbccddeeff"})
            QVERIFY2(!isValidAddress(normalizeAddress(bad)), bad);
    }

    void device_data() {
        QTest::addColumn<PropertyMap>("properties");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const PropertyMap &properties, const char *expected) {
            QTest::newRow(name) << properties << QString::fromUtf8(expected);
        };
        row("full",
            {{"Address", "AA:BB:CC:DD:EE:FF"},
             {"Name", QString::fromUtf8("Caf\xc3\xa9")},
             {"Alias", "Alias"},
             {"Icon", "audio-headset"},
             {"Paired", true},
             {"Trusted", false},
             {"Connected", true},
             {"Class", 0x240404u},
             {"Appearance", QVariant::fromValue<quint16>(0x03C1)},
             {"UUIDs", QStringList{"b", QString::fromUtf8("\xc3\xa9")}},
             {"RSSI", QVariant::fromValue<qint16>(-60)}},
            "AA:BB:CC:DD:EE:FF|Caf\xc3\xa9|Alias|audio-headset|101|2360324|961|-60|b,\xc3\xa9");
        row("empty", {}, "||||000|-|-|-|");
        row("address kept as reported", {{"Address", "aa-bb-cc-dd-ee-ff "}},
            "aa-bb-cc-dd-ee-ff ||||000|-|-|-|");
        row("class max", {{"Class", 0xFFFFFFFFu}}, "||||000|4294967295|-|-|");
        row("class as text", {{"Class", "junk"}}, "||||000|0|-|-|");
        row("appearance cut", {{"Appearance", 0x103C1u}}, "||||000|-|961|-|");
        row("rssi as text", {{"RSSI", "strong"}}, "||||000|-|-|0|");
        row("rssi cut to negative", {{"RSSI", 40000}}, "||||000|-|-|-25536|");
        row("uuids as int array", {{"UUIDs", intArrayArgument()}}, "||||000|-|-|-|");
    }
    void device() {
        QFETCH(PropertyMap, properties);
        QFETCH(QString, expected);
        const QString path = QString::fromUtf8("/org/bluez/hci0/dev_\xc3\xa9");
        const DeviceInfo d = deviceFromProperties(path, properties);
        QCOMPARE(describe(d), expected);
        QCOMPARE(QString::fromStdString(d.path), path);
    }

    void findDevice_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("path");
        const auto row = [](const char *name, const char *address, const char *path) {
            QTest::newRow(name) << QString(address) << QString(path);
        };
        row("dash query", "AA-BB-cc-dd-EE-FF", "/org/bluez/hci0/dev_AA");
        row("hci10 before hci2", "12:34:56:78:9A:BC", "/org/bluez/hci10/dev_12");
        row("stored lower-case", "11:22:33:44:55:66", "/org/bluez/hci1/dev_11");
        row("blanks trimmed", " aa:bb:cc:dd:ee:ff\n", "/org/bluez/hci0/dev_AA");
        row("unknown", "00:00:00:00:00:01", "");
    }
    void findDevice() {
        QFETCH(QString, address);
        QFETCH(QString, path);
        const auto object = [](const QString &interface, const QString &address) {
            return InterfaceMap{{interface, PropertyMap{{"Address", address}}}};
        };
        ManagedObjectMap objects;
        const QString aa = "AA:BB:CC:DD:EE:FF";
        objects[QDBusObjectPath("/org/bluez/hci1/dev_AA")] = object(device1, aa);
        objects[QDBusObjectPath("/org/bluez/hci0/dev_AA")] = object(device1, aa);
        objects[QDBusObjectPath("/org/bluez/hci0")] = object("org.bluez.Adapter1", aa);
        objects[QDBusObjectPath("/org/bluez/hci0/dev_00")] = object("org.bluez.Input1", aa);
        objects[QDBusObjectPath("/org/bluez/hci0/dev_01")] = InterfaceMap{{device1, PropertyMap()}};
        objects[QDBusObjectPath("/org/bluez/hci2/dev_12")] = object(device1, "12:34:56:78:9A:BC");
        objects[QDBusObjectPath("/org/bluez/hci10/dev_12")] = object(device1, "12:34:56:78:9a:bc");
        objects[QDBusObjectPath("/org/bluez/hci1/dev_11")] = object(device1, "11-22-33-44-55-66");
        QCOMPARE(findDevicePathByAddress(objects, address), path);
    }

    void adapterId() {
        QCOMPARE(adapterIdFromPath("/org/bluez/hci0"), 0);
        QCOMPARE(adapterIdFromPath("/org/bluez/hci10"), 10);
        QCOMPARE(adapterIdFromPath("/org/bluez/hci2147483647"), 2147483647);
        for (const char *path : {"/org/bluez/hci", "/org/bluez/hci1x", "/org/bluez/hci-1",
                                 "/org/bluez/hci 1", "/org/bluez/hci0/dev_00", "/other/hci1"})
            QVERIFY2(adapterIdFromPath(path) == -1, path);
    }

    // What bluetoothd and libdbus answer to Introspect: an existing object
    // lists its interfaces, a missing one is an empty node with children.
    void introspection() {
        const QString adapter = "org.bluez.Adapter1";
        QVERIFY(introspectionDeclares(
            "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
            "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node><interface "
            "name=\"org.bluez.Adapter1\"><method name=\"StartDiscovery\"/></interface></node>",
            adapter));
        for (const char *xml :
             {"<node>\n</node>\n", "<node><node name=\"hci0\"/><node name=\"hci1\"/></node>",
              "<node><interface name=\"org.bluez.Adapter12\"/></node>"})
            QVERIFY2(!introspectionDeclares(xml, adapter), xml);
    }

    // The pairing tests pin the other shapes of these lines.
    void traceLines_data() {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<std::function<void()>>("write");
        const auto row = [](const char *line, std::function<void()> write) {
            QTest::newRow(line) << QByteArray(line) + '\n' << write;
        };
        const QString device = "org.bluez.Device1";
        row("debug: Ger\xc3\xa4t", [] { DbusTrace::debug("Ger\xc3\xa4t"); });
        row("dbus >> org.bluez /d org.bluez.Device1.Pair",
            [=] { DbusTrace::call("org.bluez", "/d", device, "Pair", ""); });
        row("dbus << org.bluez.Device1.Cancel path=/d n=\xe2\x98\x95", [=] {
            DbusTrace::incoming("/d", device, "Cancel", QString::fromUtf8("n=\xe2\x98\x95"));
        });
        row("dbus << RegisterAgent ok", [] { DbusTrace::reply("RegisterAgent", true, ""); });
        row("dbus << Set ok: Powered=true", [] { DbusTrace::reply("Set", true, "Powered=true"); });
        row("dbus << Connect error: \xc3\xa9\x63hec",
            [] { DbusTrace::reply("Connect", false, QString::fromUtf8("\xc3\xa9\x63hec")); });
    }
    void traceLines() {
        QFETCH(QByteArray, line);
        QFETCH(std::function<void()>, write);
        DbusTrace::setEnabled(false);
        QCOMPARE(captureStream(stderr, write), QByteArray());
        DbusTrace::setEnabled(true);
        const QByteArray written = captureStream(stderr, write);
        DbusTrace::setEnabled(false);
        QCOMPARE(written, line);
    }
};

QTEST_GUILESS_MAIN(TestBluez)
#include "test_bluez.moc"
