#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/call.h"
#include "bluez/devices.h"
#include "bluez/message.h"
#include "bluez/queries.h"
#include "core/utf8.h"

#include <QtTest>

#include <functional>

using namespace kelvane::bluez;
using kelvane::core::DeviceInfo;

Q_DECLARE_METATYPE(std::function<void(DBusMessageIter *)>)

namespace {

using Append = std::function<void(DBusMessageIter *)>;

const QString device1 = "org.bluez.Device1";
const QString adapter1 = "org.bluez.Adapter1";

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

// A reply holding one variant whose content `append` writes.
Message variantReply(const char *signature, const Append &append) {
    Message call(dbus_message_new_method_call("org.bluez", "/", "i.f", "Get"));
    dbus_message_set_serial(call.get(), 1);
    Message reply(dbus_message_new_method_return(call.get()));
    DBusMessageIter iterator, variant;
    dbus_message_iter_init_append(reply.get(), &iterator);
    dbus_message_iter_open_container(&iterator, DBUS_TYPE_VARIANT, signature, &variant);
    append(&variant);
    dbus_message_iter_close_container(&iterator, &variant);
    return reply;
}

template <typename T> Append basic(int type, T value) {
    return
        [=](DBusMessageIter *iterator) { dbus_message_iter_append_basic(iterator, type, &value); };
}

Append text(const char *value) {
    return basic(DBUS_TYPE_STRING, value);
}

// An array or struct of the given contents.
Append container(int type, const char *signature, const std::vector<Append> &items) {
    return [=](DBusMessageIter *iterator) {
        DBusMessageIter inner;
        dbus_message_iter_open_container(iterator, type, signature, &inner);
        for (const Append &item : items)
            item(&inner);
        dbus_message_iter_close_container(iterator, &inner);
    };
}

// How a value reads: "text|bool|uint|int|list".
QString conversions(const QVariant &v) {
    return QString("%1|%2|%3|%4|%5")
        .arg(v.toString())
        .arg(v.toBool())
        .arg(v.toUInt())
        .arg(v.toInt())
        .arg(v.toStringList().join(','));
}

ManagedObjectMap world() {
    const auto object = [](const QString &interface, const PropertyMap &properties) {
        return InterfaceMap{{interface, properties}};
    };
    const auto address = [](const char *a) { return PropertyMap{{"Address", a}}; };
    const QString aa = "AA:BB:CC:DD:EE:FF";
    ManagedObjectMap objects;
    objects["/org/bluez/hci1/dev_AA"] = object(device1, address("AA:BB:CC:DD:EE:FF"));
    objects["/org/bluez/hci0/dev_AA"] = object(device1, address("AA:BB:CC:DD:EE:FF"));
    objects["/org/bluez/hci0"] = object(adapter1, {{"Address", aa}, {"Powered", false}});
    objects["/org/bluez/hci1"] = object(adapter1, {{"Address", aa}, {"Powered", true}});
    objects["/org/bluez/hci10"] = object(adapter1, {{"Powered", true}});
    objects["/org/bluez/hci0/dev_00"] = object("org.bluez.Input1", address("00:00:00:00:00:00"));
    objects["/org/bluez/hci0/dev_01"] = InterfaceMap{{device1, PropertyMap()}};
    objects["/org/bluez/hci0/cache"] = object(device1, address("0C:00:00:00:00:00"));
    objects["/org/bluez/hci2/dev_12"] = object(device1, address("12:34:56:78:9A:BC"));
    objects["/org/bluez/hci10/dev_12"] = object(device1, address("12:34:56:78:9a:bc"));
    objects["/org/bluez/hci1/dev_11"] = object(device1, address("11-22-33-44-55-66"));
    return objects;
}

QStringList pathsOf(const ObjectProperties &objects) {
    QStringList paths;
    for (const auto &object : objects)
        paths << object.first;
    return paths;
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
        // The one rule for two addresses: blanks around, case and separators do not count.
        QVERIFY(sameAddress(" aa-bb:cc-dd:ee-ff\t", mac));
        QVERIFY(!sameAddress("AA:BB:CC:DD:EE:F", mac));
        QVERIFY(!sameAddress("AA:BB:CC:DD:EE FF", mac));
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
        const QVariant opaque = QVariant::fromValue(OpaqueValue{});
        row("containers present but empty",
            {{"UUIDs", opaque}, {"Class", opaque}, {"Paired", opaque}, {"Name", opaque}},
            "||||000|0|-|-|");
    }
    void device() {
        QFETCH(PropertyMap, properties);
        QFETCH(QString, expected);
        const QString path = QString::fromUtf8("/org/bluez/hci0/dev_\xc3\xa9");
        const DeviceInfo d = deviceFromProperties(path, properties);
        QCOMPARE(describe(d), expected);
        QCOMPARE(QString::fromStdString(d.path), path);
    }

    // How each D-Bus type read from a message converts: as the property
    // conversions expect, and containers to nothing.
    void readValue_data() {
        QTest::addColumn<QByteArray>("signature");
        QTest::addColumn<Append>("append");
        QTest::addColumn<QString>("reads");
        const auto row = [](const char *name, const char *signature, const Append &append,
                            const char *reads) {
            QTest::newRow(name) << QByteArray(signature) << append
                                << kelvane::core::fromUtf8(QByteArray(reads));
        };
        row("text keeps a leading BOM", "s",
            text("\xef\xbb\xbf"
                 "Caf\xc3\xa9"),
            "\xef\xbb\xbf"
            "Caf\xc3\xa9|1|0|0|\xef\xbb\xbf"
            "Caf\xc3\xa9");
        row("text as number", "s", text("42"), "42|1|42|42|42");
        row("false text", "s", text("false"), "false|0|0|0|false");
        row("bool", "b", basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1), "true|1|1|1|");
        row("int32", "i", basic<dbus_int32_t>(DBUS_TYPE_INT32, 42), "42|1|42|42|");
        row("int16", "n", basic<dbus_int16_t>(DBUS_TYPE_INT16, -60), "-60|1|4294967236|-60|");
        row("uint16", "q", basic<dbus_uint16_t>(DBUS_TYPE_UINT16, 961), "961|1|961|961|");
        row("uint32", "u", basic<dbus_uint32_t>(DBUS_TYPE_UINT32, 0x103C1), "66497|1|66497|66497|");
        row("int64", "x", basic<dbus_int64_t>(DBUS_TYPE_INT64, -2), "-2|1|4294967294|-2|");
        row("uint64", "t", basic<dbus_uint64_t>(DBUS_TYPE_UINT64, 7), "7|1|7|7|");
        row("double", "d", basic<double>(DBUS_TYPE_DOUBLE, 2.5), "2.5|1|3|3|");
        row("byte", "y", basic<unsigned char>(DBUS_TYPE_BYTE, 'A'), "A|1|65|65|");
        row("object path", "o", basic(DBUS_TYPE_OBJECT_PATH, "/a"), "|0|0|0|");
        row("array of texts", "as", container(DBUS_TYPE_ARRAY, "s", {text("a"), text("b")}),
            "|0|0|0|a,b");
        row("array of ints", "ai",
            container(DBUS_TYPE_ARRAY, "i", {basic<dbus_int32_t>(DBUS_TYPE_INT32, 1)}), "|0|0|0|");
        row("dictionary", "a{sv}", container(DBUS_TYPE_ARRAY, "{sv}", {}), "|0|0|0|");
        row("struct", "(bi)",
            container(DBUS_TYPE_STRUCT, nullptr,
                      {basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1),
                       basic<dbus_int32_t>(DBUS_TYPE_INT32, 1)}),
            "|0|0|0|");
        row("variant in a variant", "v",
            container(DBUS_TYPE_VARIANT, "b", {basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1)}),
            "|0|0|0|");
    }
    void readValue() {
        QFETCH(QByteArray, signature);
        QFETCH(Append, append);
        QFETCH(QString, reads);
        const Message reply = variantReply(signature.constData(), append);
        QCOMPARE(conversions(readVariant(reply.get())), reads);
    }

    // A reply of another shape is no snapshot (every run reads the right one).
    void wrongReplyIsNoSnapshot() {
        QVERIFY(readManagedObjects(variantReply("s", text("x")).get()).isEmpty());
    }

    // Each query over one world (less the adapters removed), as the paths it answers.
    void queries_data() {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QStringList>("removed");
        QTest::addColumn<QStringList>("answer");
        const auto row = [](const char *name, const char *query, const QStringList &removed,
                            const QStringList &answer) {
            QTest::newRow(name) << query << removed << answer;
        };
        const QString hci = "/org/bluez/hci";
        row("adapters", "objectsWith", {}, {hci + "0", hci + "1", hci + "10"});
        row("adapters with an address", "adaptersIn", {}, {hci + "0=0", hci + "1=1"});
        // hci10's devices are not hci1's; only dev_ objects with Device1 count.
        row("devices of hci1", "devicesUnder hci1", {}, {hci + "1/dev_11", hci + "1/dev_AA"});
        row("devices of hci0", "devicesUnder hci0", {}, {hci + "0/dev_AA"});
        row("first powered", "firstPoweredAdapter", {}, {hci + "1"});
        row("else the first", "firstPoweredAdapter", {"1", "10"}, {hci + "0"});
        row("no adapter", "firstPoweredAdapter", {"0", "1", "10"}, {""});
    }
    void queries() {
        QFETCH(QString, query);
        QFETCH(QStringList, removed);
        QFETCH(QStringList, answer);
        ManagedObjectMap objects = world();
        for (const QString &number : removed)
            objects.remove("/org/bluez/hci" + number);
        QStringList given;
        if (query == "objectsWith")
            given = pathsOf(objectsWith(objects, adapter1));
        if (query.startsWith("devicesUnder"))
            given = pathsOf(devicesUnder(objects, "/org/bluez/" + query.section(' ', 1)));
        if (query == "firstPoweredAdapter")
            given << firstPoweredAdapter(objects);
        if (query == "adaptersIn") {
            for (const auto &a : adaptersIn(objects))
                given << QString::fromStdString(a.path) + "=" + QString::number(a.id);
        }
        QCOMPARE(given, answer);
    }

    void findDevice_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("path");
        const auto row = [](const char *name, const char *address, const char *path) {
            QTest::newRow(name) << QString(address) << QString(path);
        };
        row("dash query", "AA-BB-cc-dd-EE-FF", "/org/bluez/hci0/dev_AA");
        row("hci10 before hci2", "12:34:56:78:9A:BC", "/org/bluez/hci10/dev_12");
        row("stored with dashes", "11:22:33:44:55:66", "/org/bluez/hci1/dev_11");
        row("blanks trimmed", " aa:bb:cc:dd:ee:ff\n", "/org/bluez/hci0/dev_AA");
        row("not a device interface", "00:00:00:00:00:00", "");
        row("unknown", "00:00:00:00:00:01", "");
    }
    void findDevice() {
        QFETCH(QString, address);
        QFETCH(QString, path);
        QCOMPARE(findDevicePathByAddress(world(), address), path);
    }

    void adapterId() {
        QCOMPARE(adapterIdFromPath("/org/bluez/hci0"), 0);
        QCOMPARE(adapterIdFromPath("/org/bluez/hci10"), 10);
        QCOMPARE(adapterIdFromPath("/org/bluez/hci2147483647"), 2147483647);
        for (const char *path : {"/org/bluez/hci", "/org/bluez/hci1x", "/org/bluez/hci-1",
                                 "/org/bluez/hci 1", "/org/bluez/hci0/dev_00", "/other/hci1"})
            QVERIFY2(adapterIdFromPath(path) == -1, path);
    }

    void pageTimeout() {
        using kelvane::core::failure;
        QVERIFY(isPageTimeout(failure("Page Timeout", "org.bluez.Error.ConnectionAttemptFailed")));
        QVERIFY(
            isPageTimeout(failure("connection failed: page timeout", "org.bluez.Error.Failed")));
        QVERIFY(!isPageTimeout(failure("Page", "Page Timeout")));
        QVERIFY(!isPageTimeout(failure("Connection Timeout")));
    }
};

QTEST_GUILESS_MAIN(TestBluez)
#include "test_bluez.moc"
