#include "core/trace.h"
#include "pairing/agent.h"
#include "pairing/eventlog.h"
#include "pairing/pair.h"
#include "pairing/registration.h"
#include "result/json.h"
#include "stdcapture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <map>

using namespace kelvane;
using namespace kelvane::pairing;

namespace {

const QString devicePath = "/org/bluez/hci0/dev_00_11_22_33_44_55";

// The agent's withdrawal from BlueZ, as traced.
const QStringList withdrawal{
    "dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent (/org/kelvane/agent)",
    "dbus << UnregisterAgent ok"};

// The trace's own lines written while fn runs: Qt may add warnings of its own.
template <typename Fn> QStringList traceLines(Fn fn) {
    core::DbusTrace::setEnabled(true);
    const QByteArray written = captureStream(stderr, fn);
    core::DbusTrace::setEnabled(false);
    QStringList lines;
    for (const QByteArray &line : written.split('\n')) {
        if (line.startsWith("debug: ") || line.startsWith("dbus "))
            lines << QString::fromUtf8(line);
    }
    return lines;
}

QByteArray readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonArray parseEventFile(const QString &path) {
    return QJsonDocument::fromJson(readFile(path)).array();
}

// The "passkey" members of the logged passkey events, in order.
QStringList loggedPasskeys() {
    QStringList passkeys;
    for (const QJsonValue &event : PairingEventLog::events()) {
        if (event.toObject().value("event") == "passkey")
            passkeys << event.toObject().value("passkey").toString();
    }
    return passkeys;
}

// One agent callback, written as "<callback> [arguments...]".
void runAgentStep(PairingAgent &agent, const QString &step) {
    const QStringList w = step.split(' ');
    const QDBusObjectPath device(devicePath);
    const std::map<QString, std::function<void()>> callbacks{
        {"confirm", [&] { agent.RequestConfirmation(device, w[1].toUInt()); }},
        {"display", [&] { agent.DisplayPasskey(device, w[1].toUInt(), quint16(w[2].toUInt())); }},
        {"pin", [&] { agent.DisplayPinCode(device, w[1]); }},
        {"requestpin", [&] { QCOMPARE(agent.RequestPinCode(device), QString()); }},
        {"requestpasskey", [&] { QCOMPARE(agent.RequestPasskey(device), 0u); }},
        {"authorize", [&] { agent.RequestAuthorization(device); }},
        {"service", [&] { agent.AuthorizeService(device, w[1]); }},
        {"release", [&] { agent.Release(); }},
        {"cancel", [&] { agent.Cancel(); }},
        {"reset", [] { resetReportedPasskey(); }}};
    QVERIFY2(callbacks.count(w[0]), qPrintable("unknown step " + step));
    callbacks.at(w[0])();
}

core::DeviceInfo sampleDevice() {
    core::DeviceInfo device;
    device.address = "00:11:22:33:44:55";
    device.paired = true;
    return device;
}

} // namespace

class TestPairing : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_eventFile;

private slots:
    void initTestCase() {
        QVERIFY(m_dir.isValid());
        // Nothing here may reach a real system bus: every bus call fails at once.
        qputenv("DBUS_SYSTEM_BUS_ADDRESS",
                "unix:path=" + QFile::encodeName(m_dir.filePath("no-bus")));
        m_eventFile = m_dir.filePath("events.json");
    }

    void init() {
        PairingEventLog::setFilePath(m_eventFile);
        PairingEventLog::reset();
        resetReportedPasskey();
    }

    // Steps and passkeys separated by '|'; the trace is compared when lines are given.
    void agent_data() {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("passkeys");
        QTest::addColumn<QStringList>("lines");
        const auto row = [](const char *steps, const QString &passkeys, const QStringList &lines) {
            QTest::newRow(steps) << QString(steps).split('|')
                                 << passkeys.split('|', Qt::SkipEmptyParts) << lines;
        };
        const QString in = "dbus << org.bluez.Agent1.", at = " path=" + devicePath;
        const QString debug = "debug: pairing: ";
        row("confirm 4711", "004711",
            {in + "RequestConfirmation" + at + " passkey=004711",
             debug + "confirming passkey 004711 for device " + devicePath});
        row("display 4711 0", "004711", {in + "DisplayPasskey" + at + " passkey=004711 entered=0"});
        row("display 4711 3", "",
            {in + "DisplayPasskey" + at + " passkey=004711 entered=3",
             debug + "device " + devicePath + " passkey 004711 (3 digits entered)"});
        row("pin 0000", "000000",
            {in + "DisplayPinCode" + at + " pin=0000",
             debug + "device " + devicePath + " shows PIN 0000"});
        row("requestpin", "",
            {in + "RequestPinCode" + at,
             debug + "legacy PIN pairing is not supported for device " + devicePath});
        row("requestpasskey", "",
            {in + "RequestPasskey" + at,
             debug + "legacy passkey entry is not supported for device " + devicePath});
        row("service 1812", "", {in + "AuthorizeService" + at + " uuid=1812"});
        row("authorize", "", {in + "RequestAuthorization" + at});
        row("release", "", {in + "Release path=/org/kelvane/agent"});
        row("cancel", "", {in + "Cancel path=/", debug + "cancelled by BlueZ"});
        // A passkey that BlueZ repeats is logged once, until the next attempt resets it.
        row("confirm 4711|confirm 4711", "004711", {});
        row("confirm 4711|confirm 123456", "004711|123456", {});
        row("confirm 4711|reset|confirm 4711", "004711|004711", {});
        row("display 4711 0|display 4711 1|display 4711 6", "004711", {});
        row("confirm 1000000|display 4294967295 0", "1000000|4294967295", {});
        row("pin 1234", "001234", {});
        row("pin 99999999999", "000000", {});
    }
    void agent() {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, passkeys);
        QFETCH(QStringList, lines);
        PairingAgent agent;
        const QStringList written = traceLines([&] {
            for (const QString &step : steps)
                runAgentStep(agent, step);
        });
        if (!lines.isEmpty())
            QCOMPARE(written, lines);
        QCOMPARE(loggedPasskeys(), passkeys);
        QCOMPARE(lastReportedPasskey(), passkeys.isEmpty() ? QString() : passkeys.last());
        // Every event reached the file as well, not only the list.
        QCOMPARE(parseEventFile(m_eventFile), PairingEventLog::events());
    }

    void eventFile() {
        PairingEventLog::logEvent("connected");
        PairingEventLog::reset();
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        PairingEventLog::logEvent("passkey");
        PairingEventLog::setDevice(sampleDevice());
        PairingEventLog::logEvent("trusted");
        const QByteArray content = readFile(m_eventFile);
        const QJsonArray events = QJsonDocument::fromJson(content).array();
        QCOMPARE(content, QJsonDocument(events).toJson(QJsonDocument::Compact) + '\n');
        QCOMPARE(events.size(), 2);
        QCOMPARE(events.at(1).toObject().value("event").toString(), QString("trusted"));
        QVERIFY(!events.at(0).toObject().contains("device"));
        QCOMPARE(events.at(1).toObject().value("device").toObject(),
                 result::deviceToJson(sampleDevice()));
        // A reset forgets the events and the device.
        PairingEventLog::reset();
        PairingEventLog::logEvent("trusted");
        QVERIFY(!PairingEventLog::events().at(0).toObject().contains("device"));
    }

    void ownMembersWinOverExtraFields() {
        PairingEventLog::setDevice(sampleDevice());
        refreshEventDevice(devicePath); // unknown to BlueZ: the device stays
        const QJsonObject extra{{"event", "forged"},
                                {"timestamp", "yesterday"},
                                {"device", "x"},
                                {"passkey", "004711"}};
        const qint64 before = QDateTime::currentDateTimeUtc().toSecsSinceEpoch();
        PairingEventLog::logEvent("passkey", extra);
        const qint64 after = QDateTime::currentDateTimeUtc().toSecsSinceEpoch();
        QJsonObject event = parseEventFile(m_eventFile).at(0).toObject();
        const QJsonValue timestamp = event.take("timestamp");
        QVERIFY(timestamp.isDouble());
        QVERIFY(timestamp.toDouble() >= before && timestamp.toDouble() <= after);
        QCOMPARE(event, (QJsonObject{{"device", result::deviceToJson(sampleDevice())},
                                     {"event", "passkey"},
                                     {"passkey", "004711"}}));
    }

    void unwritableFileKeepsEvents() {
        const QString missingDir = m_dir.filePath("missing");
        const QString path = missingDir + "/events.json";
        PairingEventLog::setFilePath(path);
        PairingEventLog::reset();
        PairingEventLog::logEvent("passkey");
        QVERIFY(!QFile::exists(path));
        // Once the file can be written, it gets the complete list.
        QVERIFY(QDir().mkpath(missingDir));
        PairingEventLog::logEvent("trusted");
        QCOMPARE(parseEventFile(path), PairingEventLog::events());
    }

    void registrationWithoutBus() {
        reportPasskey(4711);
        const QStringList lines = traceLines([&] {
            AgentRegistration registration;
            registerPairingAgent(registration);
            QVERIFY(registration.agent != nullptr);
            QVERIFY(!registration.exported);
        });
        QCOMPARE(lastReportedPasskey(), QString());
        // BlueZ is not asked to register an agent that is not on the bus, but
        // the withdrawal is sent all the same, once, and reported as done.
        QCOMPARE(lines, QStringList{"debug: warning: failed to register pairing agent at "
                                    "/org/kelvane/agent"} +
                            withdrawal);
    }

    void invalidAddressTouchesNothing() {
        PairingEventLog::logEvent("connected");
        const QByteArray earlierRun = readFile(m_eventFile);
        core::Status paired;
        QCOMPARE(traceLines([&] { paired = pairTrustConnect(" AA:BB:CC:DD:EE:FF"); }),
                 QStringList());
        QVERIFY(!paired);
        QCOMPARE(paired.error().message, QString("invalid Bluetooth address:  AA:BB:CC:DD:EE:FF"));
        QCOMPARE(readFile(m_eventFile), earlierRun);
    }

    void failureWithoutBlueZStillWithdrawsAgent() {
        PairingEventLog::logEvent("connected");
        core::Status paired;
        const QStringList lines =
            traceLines([&] { paired = pairTrustConnect("aa-bb-cc-dd-ee-ff"); });
        QVERIFY(!paired);
        QVERIFY(!paired.error().message.isEmpty());
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        QVERIFY(lines.contains("debug: pairing with address aa-bb-cc-dd-ee-ff"));
        QVERIFY(!lines.join('\n').contains("using adapter"));
        QCOMPARE(lines.mid(lines.size() - 2), withdrawal);
    }
};

QTEST_GUILESS_MAIN(TestPairing)
#include "test_pairing.moc"
