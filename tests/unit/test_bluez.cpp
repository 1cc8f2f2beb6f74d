#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/devices.h"
#include "bluez/properties.h"
#include "bluez/trace.h"
#include "stdcapture.h"

#include <QDBusArgument>
#include <QtTest>

using namespace kelvane::bluez;
using kelvane::result::DeviceInfo;

namespace {

const QString device1 = QStringLiteral("org.bluez.Device1");

template <typename T> QString optionalText(const std::optional<T> &value) {
    return value ? QString::number(*value) : QStringLiteral("absent");
}

// The record field filled from one Device1 property, as text.
QString field(const DeviceInfo &d, const QString &property) {
    if (property == "Class")
        return optionalText(d.classOfDevice);
    if (property == "Appearance")
        return optionalText(d.appearance);
    if (property == "RSSI")
        return optionalText(d.rssi);
    QStringList uuids;
    for (const std::string &uuid : d.uuids)
        uuids << QString::fromStdString(uuid);
    return property == "UUIDs" ? uuids.join(',') : QString::fromStdString(d.address);
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
    void address_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("normalized");
        QTest::addColumn<bool>("validAsIs");
        QTest::addColumn<bool>("validNormalized");
        const auto row = [](const char *name, const QString &input, const QString &normalized,
                            bool validAsIs, bool validNormalized) {
            QTest::newRow(name) << input << normalized << validAsIs << validNormalized;
        };
        const QString mac = "AA:BB:CC:DD:EE:FF";
        row("canonical", mac, mac, true, true);
        row("lower, dashes", "aa-bb-cc-dd-ee-ff", mac, false, true);
        row("lower", "aa:bb:cc:dd:ee:ff", mac, false, true);
        row("mixed", "aA-Bb:cC-dd:EE-fF", mac, false, true);
        row("leading blank", " aa:bb:cc:dd:ee:ff", " " + mac, false, false);
        row("trailing blank", mac + " ", mac + " ", false, false);
        row("trailing newline", "aa:bb:cc:dd:ee:ff\n", mac + "\n", false, false);
        row("five groups", "aa:bb:cc:dd:ee", "AA:BB:CC:DD:EE", false, false);
        row("FG", "aa:bb:cc:dd:ee:fg", "AA:BB:CC:DD:EE:FG", false, false);
        row("no separators", "aabbccddeeff", "AABBCCDDEEFF", false, false);
        row("short group", "a:bb:cc:dd:ee:ff", "A:BB:CC:DD:EE:FF", false, false);
        row("empty", "", "", false, false);
        row("full unicode upper", QString::fromUtf8("stra\xc3\x9f-e"), "STRASS:E", false, false);
    }
    void address() {
        QFETCH(QString, input);
        QFETCH(QString, normalized);
        QFETCH(bool, validAsIs);
        QFETCH(bool, validNormalized);
        QCOMPARE(normalizeAddress(input), normalized);
        QCOMPARE(isValidAddress(input), validAsIs);
        QCOMPARE(isValidAddress(normalizeAddress(input)), validNormalized);
    }

    void deviceFullAndEmpty() {
        const PropertyMap full{{"Address", "AA:BB:CC:DD:EE:FF"},
                               {"Name", QString::fromUtf8("Caf\xc3\xa9")},
                               {"Alias", "Alias"},
                               {"Icon", "audio-headset"},
                               {"Paired", true},
                               {"Trusted", true},
                               {"Connected", true},
                               {"Class", 0x240404u},
                               {"Appearance", QVariant::fromValue<quint16>(0x03C1)},
                               {"UUIDs", QStringList{"b", "a"}},
                               {"RSSI", QVariant::fromValue<qint16>(-60)},
                               {"TxPower", QVariant::fromValue<qint16>(4)}};
        DeviceInfo d = deviceFromProperties("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF", full);
        QCOMPARE(d.path, std::string("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF"));
        QCOMPARE(d.address, std::string("AA:BB:CC:DD:EE:FF"));
        QCOMPARE(d.name, std::string("Caf\xc3\xa9"));
        QCOMPARE(d.alias, std::string("Alias"));
        QCOMPARE(d.icon, std::string("audio-headset"));
        QVERIFY(d.paired && d.trusted && d.connected);
        QCOMPARE(d.classOfDevice, std::optional<std::uint32_t>(0x240404));
        QCOMPARE(d.appearance, std::optional<std::uint16_t>(0x03C1));
        QCOMPARE(d.uuids, (std::vector<std::string>{"b", "a"}));
        QCOMPARE(d.rssi, std::optional<std::int16_t>(-60));

        d = deviceFromProperties(QString::fromUtf8("/p\xc3\xa9"), PropertyMap());
        QCOMPARE(d.path, std::string("/p\xc3\xa9"));
        QVERIFY(d.address.empty() && d.name.empty() && d.alias.empty() && d.icon.empty());
        QVERIFY(!d.paired && !d.trusted && !d.connected);
        QVERIFY(!d.classOfDevice && !d.appearance && !d.rssi && d.uuids.empty());
    }

    void deviceConversions_data() {
        QTest::addColumn<QString>("property");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *property, const QVariant &value,
                            const QString &expected) {
            QTest::newRow(name) << property << value << expected;
        };
        row("address kept as reported", "Address", "aa-bb-cc-dd-ee-ff ", "aa-bb-cc-dd-ee-ff ");
        row("address as number", "Address", 42, "42");
        row("class max", "Class", 0xFFFFFFFFu, "4294967295");
        row("class zero", "Class", 0u, "0");
        row("class as text", "Class", "junk", "0");
        row("appearance max", "Appearance", QVariant::fromValue<quint16>(65535), "65535");
        row("appearance cut", "Appearance", 0x103C1u, "961");
        row("appearance 65536", "Appearance", 65536, "0");
        row("appearance as text", "Appearance", "junk", "0");
        row("rssi int", "RSSI", -60, "-60");
        row("rssi min", "RSSI", QVariant::fromValue<qint16>(-32768), "-32768");
        row("rssi as text", "RSSI", "strong", "0");
        row("rssi cut positive", "RSSI", 70000, "4464");
        row("rssi cut to negative", "RSSI", 40000, "-25536");
        row("rssi cut below", "RSSI", -32769, "32767");
        row("uuids", "UUIDs", QStringList{"x", QString::fromUtf8("\xc3\xa9")},
            QString::fromUtf8("x,\xc3\xa9"));
        row("uuids as int array", "UUIDs", intArrayArgument(), "");
    }
    void deviceConversions() {
        QFETCH(QString, property);
        QFETCH(QVariant, value);
        QFETCH(QString, expected);
        const DeviceInfo d = deviceFromProperties("/d", PropertyMap{{property, value}});
        QCOMPARE(field(d, property), expected);
        for (const char *optional : {"Class", "Appearance", "RSSI"}) {
            if (property != optional)
                QCOMPARE(field(d, optional), QString("absent"));
        }
    }

    void findDevice_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("path");
        const auto row = [](const char *name, const QString &address, const QString &path) {
            QTest::newRow(name) << address << path;
        };
        row("lower-case query", "aa:bb:cc:dd:ee:ff", "/org/bluez/hci0/dev_AA");
        row("dash query", "AA-BB-cc-dd-EE-FF", "/org/bluez/hci0/dev_AA");
        row("hci10 before hci2", "12:34:56:78:9A:BC", "/org/bluez/hci10/dev_12");
        row("stored lower-case", "11:22:33:44:55:66", "/org/bluez/hci1/dev_11");
        row("blank not trimmed", " aa:bb:cc:dd:ee:ff", "");
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

    void adapterId_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("id");
        QTest::newRow("hci0") << "/org/bluez/hci0" << 0;
        QTest::newRow("hci1") << "/org/bluez/hci1" << 1;
        QTest::newRow("hci10") << "/org/bluez/hci10" << 10;
        QTest::newRow("int32 max") << "/org/bluez/hci2147483647" << 2147483647;
        QTest::newRow("no number") << "/org/bluez/hci" << -1;
        QTest::newRow("trailing letter") << "/org/bluez/hci1x" << -1;
        QTest::newRow("negative") << "/org/bluez/hci-1" << -1;
        QTest::newRow("blank") << "/org/bluez/hci 1" << -1;
        QTest::newRow("device path") << "/org/bluez/hci0/dev_00_11_22_33_44_55" << -1;
        QTest::newRow("other root") << "/other/hci1" << -1;
        QTest::newRow("upper case") << "/org/bluez/HCI1" << -1;
        QTest::newRow("empty") << "" << -1;
    }
    void adapterId() {
        QFETCH(QString, path);
        QFETCH(int, id);
        QCOMPARE(adapterIdFromPath(path), id);
    }

    // What bluetoothd and libdbus answer to Introspect: an existing object
    // lists its interfaces, a missing one is an empty node with children.
    void introspection_data() {
        QTest::addColumn<QString>("xml");
        QTest::addColumn<bool>("declared");
        const QString doctype = "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object "
                                "Introspection 1.0//EN\"\n\"http://www.freedesktop.org/"
                                "standards/dbus/1.0/introspect.dtd\">\n";
        const QString adapter = "<interface name=\"org.bluez.Adapter1\"><method "
                                "name=\"StartDiscovery\"/></interface>";
        QTest::newRow("adapter") << doctype + "<node>" + adapter + "</node>" << true;
        QTest::newRow("empty node") << doctype + "<node>\n</node>\n" << false;
        QTest::newRow("children only")
            << "<node><node name=\"hci0\"/><node name=\"hci1\"/></node>" << false;
        QTest::newRow("other interfaces")
            << "<node><interface name=\"org.freedesktop.DBus.Properties\"/>"
               "<interface name=\"org.bluez.Adapter\"/></node>"
            << false;
        QTest::newRow("prefix of the name")
            << "<node><interface name=\"org.bluez.Adapter12\"/></node>" << false;
        QTest::newRow("empty reply") << "" << false;
        QTest::newRow("not xml") << "org.bluez.Adapter1" << false;
    }
    void introspection() {
        QFETCH(QString, xml);
        QFETCH(bool, declared);
        QCOMPARE(introspectionDeclares(xml, "org.bluez.Adapter1"), declared);
    }

    // "kind|arguments..." where kind is debug, call, incoming, ok or error (a reply).
    void traceLines_data() {
        QTest::addColumn<QString>("request");
        QTest::addColumn<QByteArray>("line");
        const QString dev = "/org/bluez/hci0/dev_00_11_22_33_44_55";
        const QByteArray devBytes = dev.toUtf8();
        QTest::newRow("debug") << "debug|registered pairing agent at /org/kelvane/agent"
                               << QByteArray(
                                      "debug: registered pairing agent at /org/kelvane/agent\n");
        QTest::newRow("debug utf-8")
            << QString::fromUtf8("debug|Ger\xc3\xa4t") << QByteArray("debug: Ger\xc3\xa4t\n");
        QTest::newRow("call")
            << "call|org.bluez|/org/bluez|org.bluez.AgentManager1|RegisterAgent|/org/kelvane/agent "
               "KeyboardDisplay"
            << QByteArray("dbus >> org.bluez /org/bluez org.bluez.AgentManager1.RegisterAgent "
                          "(/org/kelvane/agent KeyboardDisplay)\n");
        QTest::newRow("call, no summary")
            << "call|org.bluez|" + dev + "|org.bluez.Device1|Pair|"
            << "dbus >> org.bluez " + devBytes + " org.bluez.Device1.Pair\n";
        QTest::newRow("call, all empty") << "call|||||" << QByteArray("dbus >>   .\n");
        QTest::newRow("incoming") << "incoming|" + dev +
                                         "|org.bluez.Agent1|RequestConfirmation|passkey=004711"
                                  << "dbus << org.bluez.Agent1.RequestConfirmation path=" +
                                         devBytes + " passkey=004711\n";
        QTest::newRow("incoming, no summary")
            << "incoming|/org/kelvane/agent|org.bluez.Agent1|Release|"
            << QByteArray("dbus << org.bluez.Agent1.Release path=/org/kelvane/agent\n");
        QTest::newRow("incoming utf-8")
            << QString::fromUtf8("incoming|/d|org.bluez.Agent1|Cancel|name=\xe2\x98\x95")
            << QByteArray("dbus << org.bluez.Agent1.Cancel path=/d name=\xe2\x98\x95\n");
        QTest::newRow("ok") << "ok|RegisterAgent|" << QByteArray("dbus << RegisterAgent ok\n");
        QTest::newRow("ok with message")
            << "ok|Properties.Set|org.bluez.Adapter1.Powered=true"
            << QByteArray("dbus << Properties.Set ok: org.bluez.Adapter1.Powered=true\n");
        QTest::newRow("error") << "error|Connect|" << QByteArray("dbus << Connect error\n");
        QTest::newRow("error utf-8") << QString::fromUtf8("error|Connect|\xc3\xa9\x63hec")
                                     << QByteArray("dbus << Connect error: \xc3\xa9\x63hec\n");
    }
    void traceLines() {
        QFETCH(QString, request);
        QFETCH(QByteArray, line);
        const QStringList a = request.split('|');
        const auto write = [&] {
            if (a[0] == "debug")
                DbusTrace::debug(a[1].toUtf8());
            else if (a[0] == "call")
                DbusTrace::call(a[1], a[2], a[3], a[4], a[5]);
            else if (a[0] == "incoming")
                DbusTrace::incoming(a[1], a[2], a[3], a[4]);
            else
                DbusTrace::reply(a[1], a[0] == "ok", a[2]);
        };
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
