#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/call.h"
#include "bluez/devices.h"
#include "bluez/message.h"
#include "bluez/queries.h"
#include "core/utf8.h"
#include "testing.h"

#include <QtTest>

using namespace kelvane::bluez;
using kelvane::core::failure;

Q_DECLARE_METATYPE(std::function<void(DBusMessageIter *)>)

namespace {

using Append = std::function<void(DBusMessageIter *)>;

template <typename T> Append basic(int type, T value) {
    return [=](DBusMessageIter *it) { dbus_message_iter_append_basic(it, type, &value); };
}

Append text(const char *value) {
    return basic(DBUS_TYPE_STRING, value);
}

// An array, struct or variant of the given contents.
Append container(int type, const char *signature, const std::vector<Append> &items) {
    return [=](DBusMessageIter *it) {
        DBusMessageIter inner;
        dbus_message_iter_open_container(it, type, signature, &inner);
        for (const Append &item : items)
            item(&inner);
        dbus_message_iter_close_container(it, &inner);
    };
}

// A reply holding what `append` writes.
Message reply(const Append &append) {
    Message call(dbus_message_new_method_call("org.bluez", "/", "i.f", "Get"));
    dbus_message_set_serial(call.get(), 1);
    Message reply(dbus_message_new_method_return(call.get()));
    DBusMessageIter it;
    dbus_message_iter_init_append(reply.get(), &it);
    append(&it);
    return reply;
}

// One world of BlueZ objects for the queries, less the adapters removed.
ManagedObjectMap world(const QStringList &removed) {
    const auto device = [](const char *address) {
        return InterfaceMap{{"org.bluez.Device1", {{"Address", address}}}};
    };
    const auto adapter = [](const PropertyMap &properties) {
        return InterfaceMap{{"org.bluez.Adapter1", properties}};
    };
    ManagedObjectMap objects{
        {"/org/bluez/hci0", adapter({{"Address", "A0"}, {"Powered", false}})},
        {"/org/bluez/hci1", adapter({{"Address", "A1"}, {"Powered", true}})},
        {"/org/bluez/hci10", adapter({{"Powered", true}})},
        {"/org/bluez/hci1/dev_AA", device("AA:BB:CC:DD:EE:FF")},
        {"/org/bluez/hci0/dev_AA", device("AA:BB:CC:DD:EE:FF")},
        {"/org/bluez/hci0/dev_00", {{"org.bluez.Input1", {{"Address", "00:00:00:00:00:00"}}}}},
        {"/org/bluez/hci0/dev_01", {{"org.bluez.Device1", {}}}},
        {"/org/bluez/hci0/cache", device("0C:00:00:00:00:00")},
        {"/org/bluez/hci2/dev_12", device("12:34:56:78:9A:BC")},
        {"/org/bluez/hci10/dev_12", device("12:34:56:78:9a:bc")},
        {"/org/bluez/hci1/dev_11", device("11-22-33-44-55-66")}};
    for (const QString &number : removed)
        objects.remove("/org/bluez/hci" + number);
    return objects;
}

QString joined(const ObjectProperties &objects) {
    QStringList paths;
    for (const auto &object : objects)
        paths << object.first;
    return paths.join(' ');
}

} // namespace

class TestBluez : public QObject {
    Q_OBJECT

private slots:
    // The address rules, adapter numbers, the Page Timeout rule and the queries
    // of a snapshot: what each function answers for an argument ('|' between two
    // arguments).
    void rules_data() {
        ruleColumns();
        const auto row = rule;
        row("normalize", "aA-Bb:cC-dd:EE-fF", "AA:BB:CC:DD:EE:FF");
        row("normalize", " aa:bb:cc:dd:ee:ff\n", " AA:BB:CC:DD:EE:FF\n"); // blanks stay
        row("valid", "AA:BB:CC:DD:EE:FF", "1");
        // Not even normalising makes these valid.
        for (const char *bad : {"aA-Bb:cC-dd:EE-fF", " aa:bb:cc:dd:ee:ff", "AA:BB:CC:DD:EE:FF\n",
                                "aa:bb:cc:dd:ee", "aa:bb:cc:dd:ee:fg", "aabbccddeeff"})
            row("valid", bad, "0");
        // The one rule for two addresses: blanks around, case and separators do not count.
        row("same", " aa-bb:cc-dd:ee-ff\t|AA:BB:CC:DD:EE:FF", "1");
        row("same", "AA:BB:CC:DD:EE:F|AA:BB:CC:DD:EE:FF", "0");
        row("same", "AA:BB:CC:DD:EE FF|AA:BB:CC:DD:EE:FF", "0");
        row("adapterId", "/org/bluez/hci0", "0");
        row("adapterId", "/org/bluez/hci2147483647", "2147483647");
        for (const char *path : {"/org/bluez/hci", "/org/bluez/hci1x", "/org/bluez/hci-1",
                                 "/org/bluez/hci 1", "/org/bluez/hci0/dev_00", "/other/hci1"})
            row("adapterId", path, "-1");
        row("pageTimeout", "Page Timeout|org.bluez.Error.ConnectionAttemptFailed", "1");
        row("pageTimeout", "connection failed: page timeout|org.bluez.Error.Failed", "1");
        row("pageTimeout", "Page|Page Timeout", "0");
        row("pageTimeout", "Connection Timeout|", "0");
        // The queries over one world, as the paths they answer.
        row("adapters", "", "/org/bluez/hci0 /org/bluez/hci1 /org/bluez/hci10");
        row("adaptersIn", "", "/org/bluez/hci0=0 /org/bluez/hci1=1"); // with an address only
        // hci10's devices are not hci1's; only dev_ objects with Device1 count.
        row("devicesUnder", "hci1", "/org/bluez/hci1/dev_11 /org/bluez/hci1/dev_AA");
        row("devicesUnder", "hci0", "/org/bluez/hci0/dev_AA");
        // The first powered adapter, else the first; the argument the adapters removed.
        row("firstPowered", "", "/org/bluez/hci1");
        row("firstPowered", "1,10", "/org/bluez/hci0");
        row("firstPowered", "0,1,10", "");
        row("find", "AA-BB-cc-dd-EE-FF", "/org/bluez/hci0/dev_AA");
        row("find", "12:34:56:78:9A:BC", "/org/bluez/hci10/dev_12");   // hci10 before hci2
        row("find", "11:22:33:44:55:66", "/org/bluez/hci1/dev_11");    // stored with dashes
        row("find", " aa:bb:cc:dd:ee:ff\n", "/org/bluez/hci0/dev_AA"); // blanks trimmed
        row("find", "00:00:00:00:00:00", "");                          // not a device interface
    }
    void rules() {
        const ManagedObjectMap objects = world({});
        const auto split = [](const QString &argument, auto answer) {
            return QString::number(answer(argument.section('|', 0, 0), argument.section('|', 1)));
        };
        checkRule(
            {{"normalize", [](const QString &a) { return normalizeAddress(a); }},
             {"valid", [](const QString &a) { return QString::number(isValidAddress(a)); }},
             {"same", [=](const QString &a) { return split(a, sameAddress); }},
             {"adapterId", [](const QString &a) { return QString::number(adapterIdFromPath(a)); }},
             {"pageTimeout",
              [=](const QString &a) {
                  return split(a, [](const QString &text, const QString &name) {
                      return isPageTimeout(failure(text, name));
                  });
              }},
             {"adapters",
              [&](const QString &) { return joined(objectsWith(objects, "org.bluez.Adapter1")); }},
             {"adaptersIn",
              [&](const QString &) {
                  QStringList given;
                  for (const auto &a : adaptersIn(objects))
                      given << QString::fromStdString(a.path) + "=" + QString::number(a.id);
                  return given.join(' ');
              }},
             {"devicesUnder",
              [&](const QString &a) { return joined(devicesUnder(objects, "/org/bluez/" + a)); }},
             {"firstPowered",
              [](const QString &a) {
                  return firstPoweredAdapter(world(a.split(',', Qt::SkipEmptyParts)));
              }},
             {"find", [&](const QString &a) { return findDevicePathByAddress(objects, a); }}});
    }

    // The record as "address|name|alias|icon|paired trusted connected|class|appearance|rssi|uuids".
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
        row("absent, address as reported", {{"Address", "aa-bb-cc-dd-ee-ff "}},
            "aa-bb-cc-dd-ee-ff ||||000|-|-|-|");
        row("widths", {{"Class", 0xFFFFFFFFu}, {"Appearance", 0x103C1u}, {"RSSI", 40000}},
            "||||000|4294967295|961|-25536|");
        const QVariant opaque = QVariant::fromValue(OpaqueValue{});
        row("containers and text where numbers belong",
            {{"UUIDs", opaque},
             {"Class", opaque},
             {"Paired", opaque},
             {"Name", opaque},
             {"RSSI", "strong"}},
            "||||000|0|-|0|");
    }
    void device() {
        QFETCH(PropertyMap, properties);
        QFETCH(QString, expected);
        const auto d =
            deviceFromProperties(QString::fromUtf8("/org/bluez/hci0/dev_\xc3\xa9"), properties);
        const auto text = [](const std::string &s) { return QString::fromStdString(s); };
        const auto number = [](const auto &v) { return v ? QString::number(*v) : QString("-"); };
        QStringList uuids;
        for (const std::string &uuid : d.uuids)
            uuids << text(uuid);
        QCOMPARE(QStringList({text(d.address), text(d.name), text(d.alias), text(d.icon),
                              QString("%1%2%3").arg(d.paired).arg(d.trusted).arg(d.connected),
                              number(d.classOfDevice), number(d.appearance), number(d.rssi),
                              uuids.join(',')})
                     .join('|'),
                 expected);
        QCOMPARE(text(d.path), QString::fromUtf8("/org/bluez/hci0/dev_\xc3\xa9"));
    }

    // How each D-Bus type in a variant reads, as "text|bool|uint|int|list":
    // as the property conversions expect, containers as nothing.
    void readValue_data() {
        QTest::addColumn<Append>("append");
        QTest::addColumn<QString>("reads");
        const auto row = [](const char *name, const Append &append, const char *reads) {
            QTest::newRow(name) << append << kelvane::core::fromUtf8(QByteArray(reads));
        };
        row("text keeps a leading BOM", text("\xef\xbb\xbfZo\xc3\xab"),
            "\xef\xbb\xbfZo\xc3\xab|1|0|0|\xef\xbb\xbfZo\xc3\xab");
        row("text as number", text("42"), "42|1|42|42|42");
        row("bool", basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1), "true|1|1|1|");
        row("int32", basic<dbus_int32_t>(DBUS_TYPE_INT32, 42), "42|1|42|42|");
        row("int16", basic<dbus_int16_t>(DBUS_TYPE_INT16, -60), "-60|1|4294967236|-60|");
        row("uint16", basic<dbus_uint16_t>(DBUS_TYPE_UINT16, 961), "961|1|961|961|");
        row("uint32", basic<dbus_uint32_t>(DBUS_TYPE_UINT32, 0x103C1), "66497|1|66497|66497|");
        row("int64", basic<dbus_int64_t>(DBUS_TYPE_INT64, -2), "-2|1|4294967294|-2|");
        row("uint64", basic<dbus_uint64_t>(DBUS_TYPE_UINT64, 7), "7|1|7|7|");
        row("double", basic<double>(DBUS_TYPE_DOUBLE, 2.5), "2.5|1|3|3|");
        row("byte", basic<unsigned char>(DBUS_TYPE_BYTE, 'A'), "A|1|65|65|");
        row("object path", basic(DBUS_TYPE_OBJECT_PATH, "/a"), "|0|0|0|");
        row("texts", container(DBUS_TYPE_ARRAY, "s", {text("a"), text("b")}), "|0|0|0|a,b");
        row("ints", container(DBUS_TYPE_ARRAY, "i", {basic<dbus_int32_t>(DBUS_TYPE_INT32, 1)}),
            "|0|0|0|");
        row("dictionary", container(DBUS_TYPE_ARRAY, "{sv}", {}), "|0|0|0|");
        row("struct",
            container(DBUS_TYPE_STRUCT, nullptr,
                      {basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1),
                       basic<dbus_int32_t>(DBUS_TYPE_INT32, 1)}),
            "|0|0|0|");
        row("variant",
            container(DBUS_TYPE_VARIANT, "b", {basic<dbus_bool_t>(DBUS_TYPE_BOOLEAN, 1)}),
            "|0|0|0|");
    }
    void readValue() {
        QFETCH(Append, append);
        QFETCH(QString, reads);
        // A reply of another shape is no snapshot (every run reads the right one).
        const Message bare = reply(append);
        QVERIFY(readManagedObjects(bare.get()).isEmpty());
        const char *signature = dbus_message_get_signature(bare.get());
        const QVariant v =
            readVariant(reply(container(DBUS_TYPE_VARIANT, signature, {append})).get());
        QCOMPARE(QString("%1|%2|%3|%4|%5")
                     .arg(v.toString())
                     .arg(v.toBool())
                     .arg(v.toUInt())
                     .arg(v.toInt())
                     .arg(v.toStringList().join(',')),
                 reads);
    }
};

QTEST_GUILESS_MAIN(TestBluez)
#include "test_bluez.moc"
