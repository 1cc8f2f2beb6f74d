#include "result/json.h"
#include "result/resultdocument.h"
#include "stdcapture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace kelvane::result;

namespace {

// "address/rssi/name", rssi empty when absent: enough to tell devices apart.
DeviceInfo decode(const QString &text) {
    const QStringList parts = text.split(QLatin1Char('/'));
    DeviceInfo d;
    d.address = parts.value(0).toStdString();
    if (!parts.value(1).isEmpty())
        d.rssi = static_cast<std::int16_t>(parts.value(1).toInt());
    d.name = parts.value(2).toStdString();
    return d;
}

QString encode(const DeviceInfo &d) {
    return QString::fromStdString(d.address) + QLatin1Char('/') +
           (d.rssi ? QString::number(*d.rssi) : QString()) + QLatin1Char('/') +
           QString::fromStdString(d.name);
}

std::vector<DeviceInfo> decode(const QStringList &texts) {
    std::vector<DeviceInfo> list;
    for (const QString &s : texts)
        list.push_back(decode(s));
    return list;
}

QByteArray documentWith(const DeviceInfo &d) {
    ResultDocument document;
    document.mergeDevices({d});
    return resultToJson(document);
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
        document.mergeDevices({d, DeviceInfo()});
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
                R"("icon-name":"device","is_hid":false,"label":"[unknown]","name":"","paired":false,)"
                R"("path":"","rssi":null,"trusted":false,"uuids":[]}],)"
                R"("error":"adapter 1: failed","result":"ok"})"));
    }

    void simpleResultBytes() {
        QCOMPARE(simpleResult(true, ""),
                 QByteArray(R"({"adapters":[],"devices":[],"error":"","result":"ok"})"));
        QCOMPARE(
            simpleResult(false, "device not found"),
            QByteArray(
                R"({"adapters":[],"devices":[],"error":"device not found","result":"error"})"));
        QCOMPARE(simpleResult(false, ""),
                 QByteArray(R"({"adapters":[],"devices":[],"error":"","result":"error"})"));
        QCOMPARE(captureStream(stdout, [] { writeResultLine("{}"); }), QByteArray("{}\n"));
    }

    void label_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("alias");
        QTest::addColumn<QString>("label");
        const auto row = [](const char *name, const char *alias, const char *label) {
            QTest::newRow(label) << name << alias << label;
        };
        row("Name", "Alias", "Name");
        row("", "Alias", "Alias");
        row("Name", "", "Name");
        row("", "", "[unknown]");
        row(" ", "Alias", " ");
    }
    void label() {
        QFETCH(QString, name);
        QFETCH(QString, alias);
        QFETCH(QString, label);
        DeviceInfo d;
        d.name = name.toStdString();
        d.alias = alias.toStdString();
        QCOMPARE(deviceToJson(d).value("label").toString(), label);
    }

    void integersWithoutFraction_data() {
        QTest::addColumn<qint64>("classOfDevice");
        QTest::addColumn<int>("rssi");
        QTest::addColumn<int>("appearance");
        QTest::newRow("maxima") << qint64(4294967295) << 32767 << 65535;
        QTest::newRow("minima") << qint64(0) << -32768 << 0;
        QTest::newRow("typical") << qint64(0x5A020C) << -128 << 961;
    }
    void integersWithoutFraction() {
        QFETCH(qint64, classOfDevice);
        QFETCH(int, rssi);
        QFETCH(int, appearance);
        DeviceInfo d;
        d.classOfDevice = static_cast<std::uint32_t>(classOfDevice);
        d.rssi = static_cast<std::int16_t>(rssi);
        d.appearance = static_cast<std::uint16_t>(appearance);
        const QByteArray json = documentWith(d);
        QVERIFY2(json.contains("\"class_of_device\":" + QByteArray::number(classOfDevice) + ","),
                 json);
        QVERIFY2(json.contains("\"rssi\":" + QByteArray::number(rssi) + ","), json);
        QVERIFY2(json.contains("\"appearance\":" + QByteArray::number(appearance) + ","), json);
    }

    void textEscaping_data() {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<bool>("verbatim"); // written as the same UTF-8 bytes
        QTest::newRow("non-ascii")
            << QByteArray("Caf\xc3\xa9 \xe2\x98\x95 \xf0\x9f\x8e\xa7") << true;
        QTest::newRow("controls") << QByteArray("a\x01\x1f\n\r\t\b\f\x7f z") << false;
        QTest::newRow("quote, backslash") << QByteArray("\"\\/\"") << false;
    }
    void textEscaping() {
        QFETCH(QByteArray, name);
        QFETCH(bool, verbatim);
        DeviceInfo d;
        d.name = name.toStdString();
        const QByteArray json = documentWith(d);
        for (const char c : json)
            QVERIFY2(static_cast<unsigned char>(c) >= 0x20, json);
        if (verbatim)
            QVERIFY2(json.contains("\"name\":\"" + name + "\""), json);
        const QJsonObject parsed = QJsonDocument::fromJson(json).object();
        const QJsonObject back = parsed.value("devices").toArray().at(0).toObject();
        QCOMPARE(back.value("name").toString().toUtf8(), name);
        QCOMPARE(back.value("label").toString().toUtf8(), name);
    }

    // Devices as "address/rssi/name", lists separated by '|'.
    void mergeDevices_data() {
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QStringList>("incoming");
        QTest::addColumn<QStringList>("expected");
        const auto row = [](const char *name, const QString &existing, const QString &incoming,
                            const QString &expected) {
            const auto list = [](const QString &s) { return s.split('|', Qt::SkipEmptyParts); };
            QTest::newRow(name) << list(existing) << list(incoming) << list(expected);
        };
        row("rssi over none replaces whole", "X//old", "X/-70/", "X/-70/");
        row("weaker keeps", "X/-70/old", "X/-80/new", "X/-70/old");
        row("equal keeps", "X/-70/old", "X/-70/new", "X/-70/old");
        row("stronger replaces", "X/-70/old", "X/-69/new", "X/-69/new");
        row("absent never replaces", "X/-70/old|Y//old", "X//new|Y//new", "X/-70/old|Y//old");
        row("exact address equality", "aa:bb//a", "AA:BB//b|AA:BB //c",
            "AA:BB//b|AA:BB //c|aa:bb//a");
        row("duplicates in one batch", "", "X//a|X/-50/b|X/-60/c", "X/-50/b");
        row("ordered", "B/-40/|A//", "C/-90/|D//", "B/-40/|C/-90/|A//|D//");
    }
    void mergeDevices() {
        QFETCH(QStringList, existing);
        QFETCH(QStringList, incoming);
        QFETCH(QStringList, expected);
        ResultDocument document;
        document.mergeDevices(decode(existing));
        document.mergeDevices(decode(incoming));
        QStringList actual;
        for (const DeviceInfo &d : document.devices())
            actual << encode(d);
        QCOMPARE(actual, expected);
    }

    void sortsBefore_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("before");
        const auto row = [](const char *name, const QString &a, const QString &b, bool before) {
            QTest::newRow(name) << a << b << before;
        };
        row("stronger first", "Z/-40", "A/-90", true);
        row("weaker not first", "A/-90", "Z/-40", false);
        row("full int16 range", "A/-32768", "B/32767", false);
        row("equal rssi", "A/-50", "B/-50", false);
        row("equal rssi reversed", "B/-50", "A/-50", false);
        row("rssi before none", "Z/-90", "A/", true);
        row("none after rssi", "A/", "Z/-90", false);
        row("address order", "A/", "B/", true);
        row("address order reversed", "B/", "A/", false);
        row("same address", "A/", "A/", false);
        row("prefix first", "AB/", "ABC/", true);
        row("longer after prefix", "ABC/", "AB/", false);
        row("case is bytes", "B/", "a/", true);
        row("unsigned bytes", "z/", QString::fromUtf8("\xc3\xa9/"), true);
        row("unsigned bytes reversed", QString::fromUtf8("\xc3\xa9/"), "z/", false);
    }
    void sortsBefore() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, before);
        DeviceInfo da = decode(a);
        DeviceInfo db = decode(b);
        QCOMPARE(deviceSortsBefore(da, db), before);
    }
};

QTEST_GUILESS_MAIN(TestResult)
#include "test_result.moc"
