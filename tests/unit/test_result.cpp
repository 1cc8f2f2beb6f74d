#include "result/json.h"
#include "result/resultdocument.h"
#include "testing.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace kelvane::result;

namespace {

// Devices as "address/rssi/name", rssi empty when absent, separated by '|'.
std::vector<DeviceInfo> decode(const QString &text) {
    std::vector<DeviceInfo> devices;
    for (const QString &device : text.split('|', Qt::SkipEmptyParts)) {
        const QStringList parts = device.split('/');
        DeviceInfo d;
        d.address = parts.value(0).toStdString();
        if (!parts.value(1).isEmpty())
            d.rssi = static_cast<std::int16_t>(parts.value(1).toInt());
        d.name = parts.value(2).toStdString();
        devices.push_back(d);
    }
    return devices;
}

QString encode(const std::vector<DeviceInfo> &devices) {
    QStringList texts;
    for (const DeviceInfo &d : devices)
        texts << QString::fromStdString(d.address) + '/' +
                     (d.rssi ? QString::number(*d.rssi) : QString()) + '/' +
                     QString::fromStdString(d.name);
    return texts.join('|');
}

} // namespace

class TestResult : public QObject {
    Q_OBJECT

private slots:
    void fullDocumentBytes() {
        DeviceInfo d;
        d.path = "/org/bluez/hci0/dev_00_11_22_33_44_55";
        d.address = "00:11:22:33:44:55";
        d.name = "Kbd";
        d.alias = "Alias";
        d.icon = "input-keyboard";
        d.classOfDevice = 0x240404;
        d.appearance = 0x03C1;
        d.uuids = {"00001124-0000-1000-8000-00805f9b34fb", "0000110b-0000-1000-8000-00805f9b34fb"};
        d.paired = true;
        d.connected = true;
        d.rssi = -60;
        AdapterInfo a;
        a.path = "/org/bluez/hci0";
        a.id = -1;
        a.address = "AA:BB:CC:DD:EE:FF";
        a.name = "host";
        a.alias = "Host";
        a.discovering = true;
        ResultDocument document;
        document.setAdapters({a});
        DeviceInfo hidByService; // nothing else known: the service alone makes it HID
        hidByService.uuids = {"00001812-0000-1000-8000-00805f9b34fb"};
        document.mergeDevices({d, hidByService});
        document.setStatus(ResultStatus::Partial);
        document.setError("adapter 1: failed");
        QCOMPARE(
            resultToJson(document),
            QByteArray(
                R"({"adapters":[{"address":"AA:BB:CC:DD:EE:FF","alias":"Host","discovering":true,)"
                R"("id":-1,"name":"host","path":"/org/bluez/hci0","powered":false}],"devices":[)"
                R"({"address":"00:11:22:33:44:55","alias":"Alias","appearance":961,)"
                R"("appearance_description":"Generic Keyboard",)"
                R"x("class":"Audio/Video: Wearable headset (Audio, Rendering)",)x"
                R"("class_of_device":2360324,"connected":true,"icon":"input-keyboard",)"
                R"("icon-name":"keyboard","is_hid":true,"label":"Kbd","name":"Kbd","paired":true,)"
                R"("path":"/org/bluez/hci0/dev_00_11_22_33_44_55","rssi":-60,"trusted":false,)"
                R"("uuids":["00001124-0000-1000-8000-00805f9b34fb",)"
                R"("0000110b-0000-1000-8000-00805f9b34fb"]},)"
                R"({"address":"","alias":"","appearance":null,"appearance_description":null,)"
                R"("class":null,"class_of_device":null,"connected":false,"icon":"",)"
                R"("icon-name":"device","is_hid":true,"label":"[unknown]","name":"","paired":false,)"
                R"("path":"","rssi":null,"trusted":false,)"
                R"("uuids":["00001812-0000-1000-8000-00805f9b34fb"]}],)"
                R"("error":"adapter 1: failed","result":"ok"})"));
    }

    void simpleResultBytes() {
        QCOMPARE(resultToJson(simpleResult({})),
                 QByteArray(R"({"adapters":[],"devices":[],"error":"","result":"ok"})"));
        QCOMPARE(
            resultToJson(simpleResult(kelvane::core::failure("device not found"))),
            QByteArray(
                R"({"adapters":[],"devices":[],"error":"device not found","result":"error"})"));
        // Partial failures are joined and still print as "ok".
        ResultDocument partial;
        partial.addPartialFailure("adapter 0: a");
        partial.addPartialFailure("adapter 1: b");
        QCOMPARE(resultToJson(partial),
                 QByteArray(R"({"adapters":[],"devices":[],"error":"adapter 0: a; adapter 1: b",)"
                            R"("result":"ok"})"));
        QCOMPARE(captureStream(stdout, [] { writeResultLine("{}"); }), QByteArray("{}\n"));
    }

    // Text is written as UTF-8, control characters escaped: the document stays
    // on one line. The widest numbers are plain integers; an appearance without
    // a name is described as "", not null.
    void textAndNumbers() {
        const QByteArray text = "Caf\xc3\xa9 \xe2\x98\x95 \xe2\x80\xa8 \xf0\x9f\x8e\xa7";
        DeviceInfo d;
        d.name = (text + " \"\\/ a\x01\x1f\n\r\t\b\f\x7f z").toStdString();
        d.classOfDevice = 4294967295u;
        d.rssi = -32768;
        d.appearance = 65535;
        ResultDocument document;
        document.mergeDevices({d});
        const QByteArray json = resultToJson(document);
        for (const char c : json)
            QVERIFY2(static_cast<unsigned char>(c) >= 0x20, json);
        QVERIFY2(json.contains("\"name\":\"" + text + ' ') &&
                     json.contains("\"appearance_description\":\"\","),
                 json);
        const QJsonDocument back = QJsonDocument::fromJson(json);
        QCOMPARE(back["devices"][0]["name"].toString().toUtf8(), QByteArray::fromStdString(d.name));
        // Byte for byte what QJsonDocument writes: escapes, key order, numbers.
        QCOMPARE(json, back.toJson(QJsonDocument::Compact));
    }

    void mergeDevices_data() {
        QTest::addColumn<QString>("existing");
        QTest::addColumn<QString>("incoming");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *existing, const char *incoming,
                            const char *expected) {
            QTest::newRow(name) << QString(existing) << QString(incoming) << QString(expected);
        };
        row("rssi over none replaces whole", "X//old", "X/-70/", "X/-70/");
        row("equal keeps", "X/-70/old", "X/-70/new", "X/-70/old");
        row("stronger replaces", "X/-70/old", "X/-69/new", "X/-69/new");
        row("absent never replaces", "X/-70/old|Y//old", "X//new|Y//new", "X/-70/old|Y//old");
        row("exact address equality", "aa:bb//a", "AA:BB//b|AA:BB //c",
            "AA:BB//b|AA:BB //c|aa:bb//a");
        row("duplicates in one batch", "", "X//a|X/-50/b|X/-60/c", "X/-50/b");
    }
    void mergeDevices() {
        QFETCH(QString, existing);
        QFETCH(QString, incoming);
        QFETCH(QString, expected);
        ResultDocument document;
        document.mergeDevices(decode(existing));
        document.mergeDevices(decode(incoming));
        QCOMPARE(encode(document.devices()), expected);
    }

    void sortsBefore_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("before");
        const auto row = [](const char *name, const QString &a, const QString &b, bool before) {
            QTest::newRow(name) << a << b << before;
        };
        row("stronger first", "Z/-40", "A/-90", true);
        row("full int16 range", "A/-32768", "B/32767", false);
        row("equal rssi", "A/-50", "B/-50", false);
        row("rssi before none", "Z/-90", "A/", true);
        row("none after rssi", "A/", "Z/-90", false);
        row("same address", "A/", "A/", false);
        row("prefix first", "AB/", "ABC/", true);
        row("unsigned bytes", "z/", QString::fromUtf8("\xc3\xa9/"), true);
    }
    void sortsBefore() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, before);
        QCOMPARE(deviceSortsBefore(decode(a).at(0), decode(b).at(0)), before);
    }
};

QTEST_GUILESS_MAIN(TestResult)
#include "test_result.moc"
