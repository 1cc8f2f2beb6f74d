#include "result/json.h"
#include "result/latestbyaddress.h"
#include "result/resultdocument.h"
#include "testing.h"

#include <QJsonArray>
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
    // What a document derives from its records: the label from the name
    // before the alias, HID from a service alone, and partial failures joined
    // in "error" while the result stays "ok". Whole documents, byte for byte,
    // are the README's examples.
    void derivedMembers() {
        DeviceInfo named, hidByService;
        named.address = "00:11:22:33:44:55";
        named.name = "Kbd";
        named.alias = "Alias";
        hidByService.uuids = {"00001812-0000-1000-8000-00805f9b34fb"};
        ResultDocument document;
        document.mergeDevices({named, hidByService});
        document.addPartialFailure("adapter 0: a");
        document.addPartialFailure("adapter 1: b");
        const QJsonObject json = QJsonDocument::fromJson(resultToJson(document)).object();
        const QJsonArray devices = json["devices"].toArray();
        QCOMPARE(QStringList({devices[0]["label"].toString(), devices[1]["label"].toString()}),
                 QStringList({"[unknown]", "Kbd"}));
        QCOMPARE(QList<bool>({devices[0]["is_hid"].toBool(), devices[1]["is_hid"].toBool()}),
                 QList<bool>({true, false}));
        QCOMPARE(QStringList({json["error"].toString(), json["result"].toString()}),
                 QStringList({"adapter 0: a; adapter 1: b", "ok"}));
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

    // merge: devices merged into a document holding others ("existing>incoming");
    // latest: a scan's polls merged ("poll>poll>..."); before: whether the
    // first device sorts before the second ("a>b").
    void rules_data() {
        ruleColumns();
        rule("merge", "X//old>X/-70/", "X/-70/");          // an RSSI over none replaces whole
        rule("merge", "X/-70/old>X/-70/new", "X/-70/old"); // equal keeps
        rule("merge", "X/-70/old>X/-69/new", "X/-69/new"); // stronger replaces
        rule("merge", "X/-70/old|Y//old>X//new|Y//new", "X/-70/old|Y//old"); // none never does
        rule("merge", "aa:bb//a>AA:BB//b|AA:BB //c", "AA:BB//b|AA:BB //c|aa:bb//a"); // exact
        rule("merge", ">X//a|X/-50/b|X/-60/c", "X/-50/b"); // duplicates in one batch
        // The latest poll wins, weaker or without an RSSI; gone stays; first seen first.
        rule("latest", "X/-40/a|Y/-60/>X/-80/b>X//c|Z/-50/", "X//c|Y/-60/|Z/-50/");
        rule("before", "Z/-40>A/-90", "1"); // stronger first
        rule("before", "A/-32768>B/32767", "0");
        rule("before", "A/-50>B/-50", "0");
        rule("before", "Z/-90>A/", "1"); // an RSSI before none
        rule("before", "A/>Z/-90", "0");
        rule("before", "A/>A/", "0");
        rule("before", "AB/>ABC/", "1");     // then by address, a prefix first
        rule("before", "z/>\xc3\xa9/", "1"); // in unsigned bytes
    }
    void rules() {
        const auto pair = [](const QString &text) {
            return std::make_pair(decode(text.section('>', 0, 0)), decode(text.section('>', 1)));
        };
        checkRule({{"merge",
                    [&](const QString &argument) {
                        ResultDocument document;
                        document.mergeDevices(pair(argument).first);
                        document.mergeDevices(pair(argument).second);
                        return encode(document.devices());
                    }},
                   {"latest",
                    [](const QString &argument) {
                        LatestByAddress latest;
                        for (const QString &poll : argument.split('>'))
                            latest.merge(decode(poll));
                        return encode(latest.take());
                    }},
                   {"before", [&](const QString &argument) {
                        const auto [a, b] = pair(argument);
                        return QString::number(deviceSortsBefore(a.at(0), b.at(0)));
                    }}});
    }
};

QTEST_GUILESS_MAIN(TestResult)
#include "test_result.moc"
