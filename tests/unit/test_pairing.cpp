#include "bluez/trace.h"
#include "pairing/agent.h"
#include "pairing/eventlog.h"
#include "pairing/pair.h"
#include "pairing/registration.h"
#include "result/json.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QtTest>

#include <cstdio>
#include <unistd.h>

using namespace kelvane;
using namespace kelvane::pairing;

namespace {

const QString devicePath = QStringLiteral("/org/bluez/hci0/dev_00_11_22_33_44_55");

// Collects what is written to file descriptor 2 while it lives, so the trace
// lines of the code under test can be compared.
class StderrCapture {
public:
    StderrCapture() {
        m_file.open();
        std::fflush(stderr);
        m_saved = dup(STDERR_FILENO);
        dup2(m_file.handle(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }

    // Only the trace's own lines: Qt may add warnings of its own.
    QStringList traceLines() {
        restore();
        m_file.seek(0);
        QStringList lines;
        for (const QByteArray &line : m_file.readAll().split('\n')) {
            if (line.startsWith("debug: ") || line.startsWith("dbus "))
                lines << QString::fromUtf8(line);
        }
        return lines;
    }

private:
    void restore() {
        if (m_saved < 0)
            return;
        std::fflush(stderr);
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        m_saved = -1;
    }

    QTemporaryFile m_file;
    int m_saved = -1;
};

QByteArray readFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

void writeFile(const QString &path, const QByteArray &content) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
}

QJsonArray parseEventFile(const QString &path) {
    return QJsonDocument::fromJson(readFile(path)).array();
}

// The "passkey" members of the logged passkey events, in order.
QStringList loggedPasskeys() {
    QStringList passkeys;
    for (const QJsonValue &event : PairingEventLog::events()) {
        if (event.toObject().value(QStringLiteral("event")).toString() == QLatin1String("passkey"))
            passkeys << event.toObject().value(QStringLiteral("passkey")).toString();
    }
    return passkeys;
}

// One agent callback, written as "<callback> [arguments...]".
void runAgentStep(PairingAgent &agent, const QString &step) {
    const QStringList words = step.split(QLatin1Char(' '));
    const QString &callback = words.at(0);
    const QDBusObjectPath device(devicePath);
    if (callback == QLatin1String("confirm"))
        agent.RequestConfirmation(device, words.at(1).toUInt());
    else if (callback == QLatin1String("display"))
        agent.DisplayPasskey(device, words.at(1).toUInt(),
                             static_cast<quint16>(words.at(2).toUInt()));
    else if (callback == QLatin1String("pin"))
        agent.DisplayPinCode(device, words.value(1));
    else if (callback == QLatin1String("requestpin"))
        QCOMPARE(agent.RequestPinCode(device), QString());
    else if (callback == QLatin1String("requestpasskey"))
        QCOMPARE(agent.RequestPasskey(device), 0u);
    else if (callback == QLatin1String("authorize"))
        agent.RequestAuthorization(device);
    else if (callback == QLatin1String("service"))
        agent.AuthorizeService(device, words.at(1));
    else if (callback == QLatin1String("release"))
        agent.Release();
    else if (callback == QLatin1String("cancel"))
        agent.Cancel();
    else if (callback == QLatin1String("reset"))
        resetReportedPasskey();
    else
        QFAIL(qPrintable(QStringLiteral("unknown step ") + step));
}

result::DeviceInfo sampleDevice() {
    result::DeviceInfo device;
    device.path = devicePath.toStdString();
    device.address = "00:11:22:33:44:55";
    device.name = "Keyboard";
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
                "unix:path=" + QFile::encodeName(m_dir.filePath(QStringLiteral("no-bus"))));
        m_eventFile = m_dir.filePath(QStringLiteral("events.json"));
    }

    void init() {
        bluez::DbusTrace::setEnabled(false);
        PairingEventLog::setFilePath(m_eventFile);
        PairingEventLog::reset();
        resetReportedPasskey();
    }

    void formatPasskey_data() {
        QTest::addColumn<quint32>("passkey");
        QTest::addColumn<QString>("text");
        QTest::newRow("zero") << 0u << "000000";
        QTest::newRow("short") << 4711u << "004711";
        QTest::newRow("six digits") << 999999u << "999999";
        QTest::newRow("seven digits are not cut") << 1000000u << "1000000";
        QTest::newRow("largest") << 4294967295u << "4294967295";
    }
    void formatPasskey() {
        QFETCH(quint32, passkey);
        QFETCH(QString, text);
        QCOMPARE(pairing::formatPasskey(passkey), text);
    }

    void agentPublishesPasskeys_data() {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("passkeys");
        QTest::newRow("numeric comparison") << QStringList{"confirm 4711"} << QStringList{"004711"};
        QTest::newRow("repeated passkey logged once")
            << QStringList{"confirm 4711", "confirm 4711"} << QStringList{"004711"};
        QTest::newRow("new passkey in a later attempt")
            << QStringList{"confirm 4711", "confirm 123456"} << QStringList{"004711", "123456"};
        QTest::newRow("same passkey again after a reset")
            << QStringList{"confirm 4711", "reset", "confirm 4711"}
            << QStringList{"004711", "004711"};
        QTest::newRow("display with keypresses")
            << QStringList{"display 4711 0", "display 4711 1", "display 4711 2", "display 4711 6"}
            << QStringList{"004711"};
        QTest::newRow("keypresses alone publish nothing")
            << QStringList{"display 4711 3"} << QStringList{};
        QTest::newRow("display after confirmation of the same passkey")
            << QStringList{"confirm 4711", "display 4711 0"} << QStringList{"004711"};
        QTest::newRow("numeric PIN") << QStringList{"pin 1234"} << QStringList{"001234"};
        QTest::newRow("PIN 0000") << QStringList{"pin 0000"} << QStringList{"000000"};
        QTest::newRow("non-numeric PIN") << QStringList{"pin 12ab"} << QStringList{"000000"};
        QTest::newRow("PIN beyond 32 bits")
            << QStringList{"pin 99999999999"} << QStringList{"000000"};
        QTest::newRow("legacy requests and authorizations publish nothing")
            << QStringList{"requestpin", "requestpasskey",
                           "authorize",  "service 0000110b-0000-1000-8000-00805f9b34fb",
                           "release",    "cancel"}
            << QStringList{};
    }
    void agentPublishesPasskeys() {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, passkeys);
        PairingAgent agent;
        for (const QString &step : steps)
            runAgentStep(agent, step);
        QCOMPARE(loggedPasskeys(), passkeys);
        QCOMPARE(lastReportedPasskey(), passkeys.isEmpty() ? QString() : passkeys.last());
        // Every event reached the file as well, not only the list.
        QCOMPARE(parseEventFile(m_eventFile), PairingEventLog::events());
    }

    void agentTrace_data() {
        const QString in = QStringLiteral("dbus << org.bluez.Agent1.");
        const QString device = QStringLiteral(" path=") + devicePath;
        QTest::addColumn<QString>("step");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("confirmation")
            << "confirm 4711"
            << QStringList{in + "RequestConfirmation" + device + " passkey=004711",
                           "debug: pairing: confirming passkey 004711 for device " + devicePath};
        QTest::newRow("display, nothing typed yet")
            << "display 4711 0"
            << QStringList{in + "DisplayPasskey" + device + " passkey=004711 entered=0"};
        QTest::newRow("display, keypress")
            << "display 4711 3"
            << QStringList{in + "DisplayPasskey" + device + " passkey=004711 entered=3",
                           "debug: pairing: device " + devicePath +
                               " passkey 004711 (3 digits entered)"};
        QTest::newRow("PIN shown")
            << "pin 0000"
            << QStringList{in + "DisplayPinCode" + device + " pin=0000",
                           "debug: pairing: device " + devicePath + " shows PIN 0000"};
        QTest::newRow("legacy PIN")
            << "requestpin"
            << QStringList{in + "RequestPinCode" + device,
                           "debug: pairing: legacy PIN pairing is not supported for device " +
                               devicePath};
        QTest::newRow("legacy passkey")
            << "requestpasskey"
            << QStringList{in + "RequestPasskey" + device,
                           "debug: pairing: legacy passkey entry is not supported for device " +
                               devicePath};
        QTest::newRow("service") << "service 0000110b-0000-1000-8000-00805f9b34fb"
                                 << QStringList{in + "AuthorizeService" + device +
                                                " uuid=0000110b-0000-1000-8000-00805f9b34fb"};
        QTest::newRow("authorization")
            << "authorize" << QStringList{in + "RequestAuthorization" + device};
        QTest::newRow("release names the agent")
            << "release" << QStringList{in + "Release path=/org/kelvane/agent"};
        QTest::newRow("cancel") << "cancel"
                                << QStringList{
                                       in + "Cancel path=/",
                                       QStringLiteral("debug: pairing: cancelled by BlueZ")};
    }
    void agentTrace() {
        QFETCH(QString, step);
        QFETCH(QStringList, lines);
        PairingAgent agent;
        bluez::DbusTrace::setEnabled(true);
        StderrCapture capture;
        runAgentStep(agent, step);
        bluez::DbusTrace::setEnabled(false);
        QCOMPARE(capture.traceLines(), lines);
    }

    void resetWritesEmptyArray() {
        writeFile(m_eventFile, "[{\"event\":\"trusted\",\"timestamp\":1}]\n");
        PairingEventLog::setDevice(sampleDevice());
        PairingEventLog::logEvent(QStringLiteral("connected"));
        PairingEventLog::reset();
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        QVERIFY(PairingEventLog::events().isEmpty());
        // The device went with the reset.
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        QVERIFY(!PairingEventLog::events().at(0).toObject().contains(QStringLiteral("device")));
    }

    void fileIsCompactArrayWithNewline() {
        PairingEventLog::logEvent(QStringLiteral("passkey"),
                                  QJsonObject{{QStringLiteral("passkey"), "004711"}});
        PairingEventLog::setDevice(sampleDevice());
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        PairingEventLog::logEvent(QStringLiteral("connected"));
        const QByteArray content = readFile(m_eventFile);
        QVERIFY(content.endsWith("]\n"));
        const QJsonArray events = QJsonDocument::fromJson(content).array();
        QCOMPARE(content, QJsonDocument(events).toJson(QJsonDocument::Compact) + '\n');
        QCOMPARE(events.size(), 3);
        const QStringList names{"passkey", "trusted", "connected"};
        for (int i = 0; i < 3; ++i)
            QCOMPARE(events.at(i).toObject().value(QStringLiteral("event")).toString(),
                     names.at(i));
        QVERIFY(!events.at(0).toObject().contains(QStringLiteral("device")));
        QCOMPARE(events.at(2).toObject().value(QStringLiteral("device")).toObject(),
                 result::deviceToJson(sampleDevice()));
    }

    void ownMembersWinOverExtraFields() {
        PairingEventLog::setDevice(sampleDevice());
        const QJsonObject extra{{QStringLiteral("event"), "forged"},
                                {QStringLiteral("timestamp"), "yesterday"},
                                {QStringLiteral("device"), "someone else"},
                                {QStringLiteral("passkey"), "004711"}};
        const qint64 before = QDateTime::currentDateTimeUtc().toSecsSinceEpoch();
        PairingEventLog::logEvent(QStringLiteral("passkey"), extra);
        const qint64 after = QDateTime::currentDateTimeUtc().toSecsSinceEpoch();
        const QJsonObject event = parseEventFile(m_eventFile).at(0).toObject();
        QCOMPARE(event.keys(), (QStringList{"device", "event", "passkey", "timestamp"}));
        QCOMPARE(event.value(QStringLiteral("event")).toString(), QStringLiteral("passkey"));
        QCOMPARE(event.value(QStringLiteral("passkey")).toString(), QStringLiteral("004711"));
        QCOMPARE(event.value(QStringLiteral("device")).toObject(),
                 result::deviceToJson(sampleDevice()));
        const QJsonValue timestamp = event.value(QStringLiteral("timestamp"));
        QVERIFY(timestamp.isDouble());
        QVERIFY(timestamp.toDouble() >= before && timestamp.toDouble() <= after);
    }

    void unwritableFileKeepsEvents() {
        const QString missingDir = m_dir.filePath(QStringLiteral("missing"));
        const QString path = missingDir + QStringLiteral("/events.json");
        PairingEventLog::setFilePath(path);
        PairingEventLog::reset();
        PairingEventLog::logEvent(QStringLiteral("passkey"));
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        QVERIFY(!QFile::exists(path));
        QCOMPARE(PairingEventLog::events().size(), 2);
        // Once the file can be written, it gets the complete list.
        QVERIFY(QDir().mkpath(missingDir));
        PairingEventLog::logEvent(QStringLiteral("connected"));
        QCOMPARE(parseEventFile(path).size(), 3);
        QCOMPARE(parseEventFile(path), PairingEventLog::events());
    }

    void deletedFileIsRecreated() {
        PairingEventLog::logEvent(QStringLiteral("passkey"));
        QVERIFY(QFile::remove(m_eventFile));
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        const QJsonArray events = parseEventFile(m_eventFile);
        QCOMPARE(events.size(), 2);
        QCOMPARE(events.at(0).toObject().value(QStringLiteral("event")).toString(),
                 QStringLiteral("passkey"));
    }

    void unknownDeviceKeepsCurrentDevice() {
        PairingEventLog::setDevice(sampleDevice());
        refreshEventDevice(devicePath);
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        QCOMPARE(PairingEventLog::events().at(0).toObject().value(QStringLiteral("device")),
                 QJsonValue(result::deviceToJson(sampleDevice())));
    }

    void registrationWithoutBus() {
        reportPasskey(4711);
        bluez::DbusTrace::setEnabled(true);
        StderrCapture capture;
        {
            AgentRegistration registration;
            registerPairingAgent(registration);
            QVERIFY(registration.agent != nullptr);
            QVERIFY(!registration.exported);
            QCOMPARE(lastReportedPasskey(), QString());
        }
        bluez::DbusTrace::setEnabled(false);
        // BlueZ is not asked to register an agent that is not on the bus, but
        // the withdrawal is sent all the same, once, and reported as done.
        QCOMPARE(
            capture.traceLines(),
            (QStringList{"debug: warning: failed to register pairing agent at "
                         "/org/kelvane/agent",
                         "dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent "
                         "(/org/kelvane/agent)",
                         "dbus << UnregisterAgent ok"}));
    }

    void invalidAddressTouchesNothing_data() {
        QTest::addColumn<QString>("address");
        QTest::newRow("five groups") << "AA:BB:CC:DD:EE";
        QTest::newRow("bad digit") << "AA:BB:CC:DD:EE:FG";
        QTest::newRow("leading blank") << " AA:BB:CC:DD:EE:FF";
        QTest::newRow("no separators") << "AABBCCDDEEFF";
        QTest::newRow("empty") << "";
    }
    void invalidAddressTouchesNothing() {
        QFETCH(QString, address);
        const QByteArray earlierRun = "[{\"event\":\"connected\",\"timestamp\":1}]\n";
        writeFile(m_eventFile, earlierRun);
        bluez::DbusTrace::setEnabled(true);
        StderrCapture capture;
        std::string error = "stale";
        const bool ok = pairTrustConnect(address.toStdString(), error);
        bluez::DbusTrace::setEnabled(false);
        QVERIFY(!ok);
        QCOMPARE(QString::fromStdString(error), "invalid Bluetooth address: " + address);
        QCOMPARE(readFile(m_eventFile), earlierRun);
        QCOMPARE(capture.traceLines(), QStringList());
    }

    void failureWithoutBlueZStillWithdrawsAgent() {
        writeFile(m_eventFile, "[{\"event\":\"connected\",\"timestamp\":1}]\n");
        bluez::DbusTrace::setEnabled(true);
        StderrCapture capture;
        std::string error;
        const bool ok = pairTrustConnect("aa-bb-cc-dd-ee-ff", error);
        bluez::DbusTrace::setEnabled(false);
        QVERIFY(!ok);
        QVERIFY(!error.empty());
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        const QStringList lines = capture.traceLines();
        QVERIFY(lines.contains(QStringLiteral("debug: pairing with address aa-bb-cc-dd-ee-ff")));
        QVERIFY(!lines.join('\n').contains(QLatin1String("using adapter")));
        QVERIFY(lines.size() >= 2);
        QCOMPARE(
            lines.mid(lines.size() - 2),
            (QStringList{"dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent "
                         "(/org/kelvane/agent)",
                         "dbus << UnregisterAgent ok"}));
    }
};

QTEST_GUILESS_MAIN(TestPairing)
#include "test_pairing.moc"
