#include "bluez/message.h"
#include "core/trace.h"
#include "pairing/agent.h"
#include "pairing/agentpolicy.h"
#include "pairing/eventlog.h"
#include "pairing/pair.h"
#include "pairing/registration.h"
#include "result/json.h"
#include "stdcapture.h"

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
const QString otherDevice = "/org/bluez/hci0/dev_66_77_88_99_AA_BB";
const char *const bluezName = ":1.7";

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

// The "passkey" members of the passkey events in the file, in order.
QStringList loggedPasskeys(const QString &eventFile) {
    QStringList passkeys;
    for (const QJsonValue &event : parseEventFile(eventFile)) {
        if (event.toObject().value("event") == "passkey")
            passkeys << event.toObject().value("passkey").toString();
    }
    return passkeys;
}

// "ok", or the error's name and message.
template <typename T> QString outcome(const T &result) {
    return result ? QString("ok") : result.error().name + ": " + result.error().message;
}

// One agent request, written as "<request> [arguments...]"; "other" as the
// first argument names another device than the one being paired, and
// "unexpected" forgets which device that is.
QString runAgentStep(AgentPolicy &agent, const QString &step) {
    QStringList w = step.split(' ');
    const QString device = w.value(1) == "other" ? otherDevice : devicePath;
    if (w.value(1) == "other")
        w.removeAt(1);
    const std::map<QString, std::function<QString()>> requests{
        {"confirm", [&] { return outcome(agent.requestConfirmation(device, w[1].toUInt())); }},
        {"display",
         [&] {
             return outcome(agent.displayPasskey(device, w[1].toUInt(), quint16(w[2].toUInt())));
         }},
        {"pin", [&] { return outcome(agent.displayPinCode(device, w[1])); }},
        {"requestpin", [&] { return outcome(agent.requestPinCode(device)); }},
        {"requestpasskey", [&] { return outcome(agent.requestPasskey(device)); }},
        {"authorize", [&] { return outcome(agent.requestAuthorization(device)); }},
        {"service", [&] { return outcome(agent.authorizeService(device, w[1])); }},
        {"release", [&] { return agent.release(), QString("ok"); }},
        {"unexpected", [&] { return agent.expectDevice(QString()), QString("ok"); }},
        {"cancel", [&] { return agent.cancel(), QString("ok"); }}};
    return requests.at(w[0])();
}

core::DeviceInfo sampleDevice() {
    core::DeviceInfo device;
    device.address = "00:11:22:33:44:55";
    device.paired = true;
    return device;
}

// An Agent1 call as the bus would deliver it.
bluez::Message agentCall(const char *sender, const char *method, const QString &device,
                         const char *extra) {
    bluez::Message call(
        dbus_message_new_method_call(nullptr, "/org/kelvane/agent", "org.bluez.Agent1", method));
    dbus_message_set_serial(call.get(), 7);
    dbus_message_set_sender(call.get(), sender);
    const QByteArray path = device.toUtf8();
    const char *pathData = path.constData();
    const dbus_uint32_t passkey = 4711;
    if (!device.isEmpty())
        dbus_message_append_args(call.get(), DBUS_TYPE_OBJECT_PATH, &pathData, DBUS_TYPE_INVALID);
    if (qstrcmp(extra, "u") == 0)
        dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &passkey, DBUS_TYPE_INVALID);
    if (qstrcmp(extra, "s") == 0)
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &extra, DBUS_TYPE_INVALID);
    return call;
}

// The reply as "return <signature>", "error <name>", or "none".
QString describeReply(const bluez::Message &reply) {
    if (!reply)
        return "none";
    if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR)
        return QString("error ") + dbus_message_get_error_name(reply.get());
    return QString("return ") + dbus_message_get_signature(reply.get());
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
    }

    // Steps, answers and passkeys separated by '|'; the trace is compared when lines are given.
    void policy_data() {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("answers");
        QTest::addColumn<QStringList>("passkeys");
        QTest::addColumn<QStringList>("lines");
        const auto row = [](const char *steps, const QString &answers, const QString &passkeys,
                            const QStringList &lines) {
            QTest::newRow(steps) << QString(steps).split('|') << answers.split('|')
                                 << passkeys.split('|', Qt::SkipEmptyParts) << lines;
        };
        const QString in = "dbus << org.bluez.Agent1.", at = " path=" + devicePath;
        const QString debug = "debug: pairing: ";
        const QString rejected = "org.bluez.Error.Rejected: ";
        row("confirm 4711", "ok", "004711",
            {in + "RequestConfirmation" + at + " passkey=004711",
             debug + "confirming passkey 004711 for device " + devicePath});
        row("display 4711 0", "ok", "004711",
            {in + "DisplayPasskey" + at + " passkey=004711 entered=0"});
        row("display 4711 3", "ok", "",
            {in + "DisplayPasskey" + at + " passkey=004711 entered=3",
             debug + "device " + devicePath + " passkey 004711 (3 digits entered)"});
        row("pin 0000", "ok", "000000",
            {in + "DisplayPinCode" + at + " pin=0000",
             debug + "device " + devicePath + " shows PIN 0000"});
        row("requestpin", rejected + "Legacy PIN pairing is not supported", "",
            {in + "RequestPinCode" + at,
             debug + "legacy PIN pairing is not supported for device " + devicePath});
        row("requestpasskey", rejected + "Legacy passkey entry is not supported", "",
            {in + "RequestPasskey" + at,
             debug + "legacy passkey entry is not supported for device " + devicePath});
        row("service 1812", "ok", "", {in + "AuthorizeService" + at + " uuid=1812"});
        row("authorize", "ok", "", {in + "RequestAuthorization" + at});
        row("release", "ok", "", {in + "Release path=/org/kelvane/agent"});
        row("cancel", "ok", "", {in + "Cancel path=/", debug + "cancelled by BlueZ"});
        // Only the device being paired gets an answer other than a refusal.
        row("confirm other 999999", rejected + "Not the device being paired", "",
            {in + "RequestConfirmation path=" + otherDevice + " passkey=999999",
             debug + "refusing RequestConfirmation for device " + otherDevice +
                 ": not the device being paired"});
        row("authorize other|display other 1 0|service other 1812",
            QString(rejected + "Not the device being paired|").repeated(3).chopped(1), "", {});
        // Before Pair names its device, no device is the one being paired.
        row("unexpected|confirm 4711|authorize",
            "ok|" + QString(rejected + "Not the device being paired|").repeated(2).chopped(1), "",
            {});
        // A passkey that BlueZ repeats is logged once; a new one again.
        row("confirm 4711|confirm 4711", "ok|ok", "004711", {});
        row("confirm 4711|confirm 123456|confirm 4711", "ok|ok|ok", "004711|123456|004711", {});
        row("display 4711 0|display 4711 1|display 4711 6", "ok|ok|ok", "004711", {});
        row("confirm 1000000|display 4294967295 0", "ok|ok", "1000000|4294967295", {});
        row("pin 99999999999", "ok", "000000", {});
    }
    void policy() {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, answers);
        QFETCH(QStringList, passkeys);
        QFETCH(QStringList, lines);
        AgentPolicy agent;
        agent.expectDevice(devicePath);
        QStringList given;
        const QStringList written = traceLines([&] {
            for (const QString &step : steps)
                given << runAgentStep(agent, step);
        });
        QCOMPARE(given, answers);
        if (!lines.isEmpty())
            QCOMPARE(written, lines);
        QCOMPARE(loggedPasskeys(m_eventFile), passkeys);
    }

    // What reaches the policy from the bus: BlueZ's calls with the exact
    // signatures; everything else is answered without any effect.
    void adaptor_data() {
        QTest::addColumn<QByteArray>("sender");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QString>("device");
        QTest::addColumn<QByteArray>("extra");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("passkeys");
        const auto row = [](const char *name, const char *sender, const char *method,
                            const QString &device, const char *extra, const char *reply,
                            const QStringList &passkeys) {
            QTest::newRow(name) << QByteArray(sender) << QByteArray(method) << device
                                << QByteArray(extra) << QString(reply) << passkeys;
        };
        const QStringList none;
        row("confirmation", bluezName, "RequestConfirmation", devicePath, "u", "return ",
            {"004711"});
        row("someone else", ":1.99", "RequestConfirmation", devicePath, "u",
            "error org.freedesktop.DBus.Error.AccessDenied", none);
        row("other device", bluezName, "RequestConfirmation", otherDevice, "u",
            "error org.bluez.Error.Rejected", none);
        row("missing passkey", bluezName, "RequestConfirmation", devicePath, "",
            "error org.freedesktop.DBus.Error.UnknownMethod", none);
        row("text for a number", bluezName, "RequestConfirmation", devicePath, "s",
            "error org.freedesktop.DBus.Error.UnknownMethod", none);
        row("release with a device", bluezName, "Release", devicePath, "",
            "error org.freedesktop.DBus.Error.UnknownMethod", none);
        row("release", bluezName, "Release", "", "", "return ", none);
        row("pin code", bluezName, "RequestPinCode", devicePath, "",
            "error org.bluez.Error.Rejected", none);
        row("pin shown", bluezName, "DisplayPinCode", devicePath, "s", "return ", {"000000"});
        row("not an agent method", bluezName, "Introspect", "", "", "none", none);
    }
    void adaptor() {
        QFETCH(QByteArray, sender);
        QFETCH(QByteArray, method);
        QFETCH(QString, device);
        QFETCH(QByteArray, extra);
        QFETCH(QString, reply);
        QFETCH(QStringList, passkeys);
        AgentPolicy policy;
        policy.expectDevice(devicePath);
        AgentAdaptor adaptor(policy, [] { return core::Expected<QString>(bluezName); });
        const bluez::Message call =
            agentCall(sender.constData(), method.constData(), device, extra.constData());
        QCOMPARE(describeReply(adaptor.handle(call.get())), reply);
        QCOMPARE(loggedPasskeys(m_eventFile), passkeys);
    }

    void eventFile() {
        PairingEventLog::logEvent("connected");
        PairingEventLog::reset();
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        PairingEventLog::logEvent("passkey", "004711");
        PairingEventLog::setDevice(sampleDevice());
        PairingEventLog::logEvent("trusted");
        const QByteArray content = readFile(m_eventFile);
        const QJsonArray events = QJsonDocument::fromJson(content).array();
        QCOMPARE(content, QJsonDocument(events).toJson(QJsonDocument::Compact) + '\n');
        QCOMPARE(events.size(), 2);
        QCOMPARE(events.at(0).toObject().keys(), QStringList({"event", "passkey", "timestamp"}));
        QCOMPARE(events.at(1).toObject().value("event").toString(), QString("trusted"));
        QCOMPARE(events.at(1).toObject().value("device").toObject(),
                 QJsonDocument::fromJson(result::deviceToJson(sampleDevice())).object());
        // A reset forgets the events and the device.
        PairingEventLog::reset();
        PairingEventLog::logEvent("trusted");
        QVERIFY(!parseEventFile(m_eventFile).at(0).toObject().contains("device"));
    }

    void unwritableFileKeepsEvents() {
        const QString missingDir = m_dir.filePath("missing");
        const QString path = missingDir + "/events.json";
        PairingEventLog::setFilePath(path);
        PairingEventLog::reset();
        PairingEventLog::logEvent("passkey", "004711");
        QVERIFY(!QFile::exists(path));
        // Once the file can be written, it gets the complete list.
        QVERIFY(QDir().mkpath(missingDir));
        PairingEventLog::logEvent("trusted");
        QStringList names;
        for (const QJsonValue &event : parseEventFile(path))
            names << event.toObject().value("event").toString();
        QCOMPARE(names, QStringList({"passkey", "trusted"}));
    }

    void registrationWithoutBus() {
        AgentPolicy policy;
        const QStringList lines = traceLines([&] {
            AgentRegistration registration;
            registerPairingAgent(registration, policy);
            QVERIFY(!registration.exported);
        });
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
