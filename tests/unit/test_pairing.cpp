#include "bluez/message.h"
#include "core/trace.h"
#include "pairing/agent.h"
#include "pairing/agentpolicy.h"
#include "pairing/eventlog.h"
#include "pairing/pair.h"
#include "pairing/registration.h"
#include "result/json.h"
#include "testing.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

using namespace kelvane;
using namespace kelvane::pairing;

namespace {

const QString device = "/org/bluez/hci0/dev_00_11_22_33_44_55";
const QString other = "/org/bluez/hci0/dev_66_77_88_99_AA_BB";

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

// The events of the file as "name" or "name passkey".
QStringList events(const QString &path) {
    QStringList names;
    for (const QJsonValue &event : QJsonDocument::fromJson(readFile(path)).array())
        names << (event["event"].toString() + ' ' + event["passkey"].toString()).trimmed();
    return names;
}

// An Agent1 call from BlueZ (":1.7"), written "Method [dev|other] [u<n>] [q<n>] [s<text>]",
// or from another client when it starts with "from <name>".
bluez::Message agentCall(QString step) {
    QStringList words = step.split(' ');
    const QByteArray sender = words[0] == "from" ? words[1].toUtf8() : ":1.7";
    words = words.mid(words[0] == "from" ? 2 : 0);
    bluez::Message call(dbus_message_new_method_call(nullptr, "/org/kelvane/agent",
                                                     "org.bluez.Agent1", qPrintable(words[0])));
    dbus_message_set_serial(call.get(), 7);
    dbus_message_set_sender(call.get(), sender.constData());
    for (const QString &word : words.mid(1)) {
        const QByteArray text = word == "dev"     ? device.toUtf8()
                                : word == "other" ? other.toUtf8()
                                                  : word.mid(1).toUtf8();
        const char *data = text.constData();
        const dbus_uint32_t number = word.mid(1).toUInt();
        const dbus_uint16_t shortNumber = static_cast<dbus_uint16_t>(number);
        if (word == "dev" || word == "other")
            dbus_message_append_args(call.get(), DBUS_TYPE_OBJECT_PATH, &data, DBUS_TYPE_INVALID);
        else if (word[0] == 'u')
            dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
        else if (word[0] == 'q')
            dbus_message_append_args(call.get(), DBUS_TYPE_UINT16, &shortNumber, DBUS_TYPE_INVALID);
        else
            dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &data, DBUS_TYPE_INVALID);
    }
    return call;
}

// "ok", "none" (left to the bus library), or the error's name and text.
QString describeReply(const bluez::Message &reply) {
    if (!reply)
        return "none";
    const core::Error error = bluez::errorOf(reply.get());
    return error.name.isEmpty() ? "ok" : error.name + ": " + error.message;
}

} // namespace

class TestPairing : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_eventFile = m_dir.filePath("events.json");

private slots:
    void initTestCase() {
        // Nothing here may reach a real system bus: every bus call fails at once.
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + QFile::encodeName(m_dir.filePath("-")));
    }

    void init() {
        PairingEventLog::setFilePath(m_eventFile);
        PairingEventLog::reset();
    }

    // Agent calls as the bus delivers them, '|' between calls, answers and
    // events; the trace is compared when lines are given. "unexpected" is no
    // call: it forgets the device being paired.
    void agent_data() {
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QStringList>("answers");
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QStringList>("lines");
        const auto row = [](const char *calls, const QString &answers, const QString &events,
                            const QStringList &lines = {}) {
            QTest::newRow(calls) << QString(calls).split('|') << answers.split('|')
                                 << events.split('|', Qt::SkipEmptyParts) << lines;
        };
        const QString in = "dbus << org.bluez.Agent1.", at = " path=" + device;
        const QString debug = "debug: pairing: ";
        const QString refused = "org.bluez.Error.Rejected: Not the device being paired";
        const auto unknown = [](const char *method, const char *signature) {
            return QString("org.freedesktop.DBus.Error.UnknownMethod: Method \"%1\" with signature "
                           "\"%2\" on interface \"org.bluez.Agent1\" doesn't exist\n")
                .arg(method, signature);
        };
        row("RequestConfirmation dev u4711", "ok", "passkey 004711",
            {in + "RequestConfirmation" + at + " passkey=004711",
             debug + "confirming passkey 004711 for device " + device});
        row("DisplayPasskey dev u4711 q0", "ok", "passkey 004711",
            {in + "DisplayPasskey" + at + " passkey=004711 entered=0"});
        row("DisplayPasskey dev u4711 q3", "ok", "",
            {in + "DisplayPasskey" + at + " passkey=004711 entered=3",
             debug + "device " + device + " passkey 004711 (3 digits entered)"});
        row("DisplayPinCode dev s0000", "ok", "passkey 000000",
            {in + "DisplayPinCode" + at + " pin=0000",
             debug + "device " + device + " shows PIN 0000"});
        row("RequestPinCode dev", "org.bluez.Error.Rejected: Legacy PIN pairing is not supported",
            "",
            {in + "RequestPinCode" + at,
             debug + "legacy PIN pairing is not supported for device " + device});
        row("RequestPasskey dev", "org.bluez.Error.Rejected: Legacy passkey entry is not supported",
            "",
            {in + "RequestPasskey" + at,
             debug + "legacy passkey entry is not supported for device " + device});
        row("AuthorizeService dev s1812", "ok", "", {in + "AuthorizeService" + at + " uuid=1812"});
        row("RequestAuthorization dev", "ok", "", {in + "RequestAuthorization" + at});
        row("Release", "ok", "", {in + "Release path=/org/kelvane/agent"});
        row("Cancel", "ok", "", {in + "Cancel path=/", debug + "cancelled by BlueZ"});
        // Only the device being paired gets an answer other than a refusal, and
        // none does before Pair names it.
        row("RequestConfirmation other u999999", refused, "",
            {in + "RequestConfirmation path=" + other + " passkey=999999",
             debug + "refusing RequestConfirmation for device " + other +
                 ": not the device being paired"});
        row("RequestAuthorization other|DisplayPasskey other u1 q0|AuthorizeService other s1",
            QString(refused + '|').repeated(3).chopped(1), "");
        row("unexpected|RequestConfirmation dev u4711|RequestAuthorization dev",
            refused + '|' + refused, "");
        // A passkey that BlueZ repeats is published once; a new one again.
        row("RequestConfirmation dev u4711|RequestConfirmation dev u4711|RequestConfirmation dev "
            "u123456|RequestConfirmation dev u4711",
            "ok|ok|ok|ok", "passkey 004711|passkey 123456|passkey 004711");
        row("RequestConfirmation dev u1000000|DisplayPasskey dev u4294967295 q0|DisplayPinCode dev "
            "s99999999999",
            "ok|ok|ok", "passkey 1000000|passkey 4294967295|passkey 000000");
        // Only BlueZ, and only with the exact signatures, reaches the policy.
        row("from :1.99 RequestConfirmation dev u4711",
            "org.freedesktop.DBus.Error.AccessDenied: only BlueZ may call the pairing agent", "");
        row("RequestConfirmation dev s4711", unknown("RequestConfirmation", "os"), "");
        row("Release dev", unknown("Release", "o"), "");
        row("Introspect", "none", "");
    }
    void agent() {
        QFETCH(QStringList, calls);
        QFETCH(QStringList, answers);
        QFETCH(QStringList, events);
        QFETCH(QStringList, lines);
        AgentPolicy policy;
        policy.expectDevice(device);
        AgentAdaptor adaptor(policy, [] { return core::Expected<QString>(":1.7"); });
        QStringList given;
        const QStringList written = traceLines([&] {
            for (const QString &call : calls) {
                if (call == "unexpected")
                    policy.expectDevice(QString());
                else
                    given << describeReply(adaptor.handle(agentCall(call).get()));
            }
        });
        QCOMPARE(given, answers);
        if (!lines.isEmpty())
            QCOMPARE(written, lines);
        QCOMPARE(::events(m_eventFile), events);
    }

    // The whole list, replaced whole, each event with the device of its time;
    // a reset forgets events and device. Events survive a file that cannot be
    // written for now. The file's bytes are the README's example.
    void eventFile() {
        core::DeviceInfo sample;
        sample.address = "00:11:22:33:44:55";
        PairingEventLog::logEvent("passkey", "004711");
        PairingEventLog::setDevice(sample);
        PairingEventLog::logEvent("trusted");
        const QJsonArray logged = QJsonDocument::fromJson(readFile(m_eventFile)).array();
        QVERIFY(!logged[0].toObject().contains("device"));
        QCOMPARE(logged[1]["device"].toObject(),
                 QJsonDocument::fromJson(result::deviceToJson(sample)).object());
        PairingEventLog::reset();
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        PairingEventLog::setFilePath(m_dir.filePath("later/events.json"));
        PairingEventLog::logEvent("trusted");
        QVERIFY(QDir().mkpath(m_dir.filePath("later")));
        PairingEventLog::logEvent("connected");
        QCOMPARE(::events(m_dir.filePath("later/events.json")),
                 QStringList({"trusted", "connected"}));
        QVERIFY(!readFile(m_dir.filePath("later/events.json")).contains("device"));
    }

    // Without a bus the agent cannot be exported and BlueZ is not asked to
    // register it, yet its withdrawal is sent all the same, last, and the
    // event file is reset.
    void pairWithoutBus() {
        PairingEventLog::logEvent("connected");
        core::Status paired;
        const QStringList lines =
            traceLines([&] { paired = pairTrustConnect("aa-bb-cc-dd-ee-ff"); });
        QVERIFY(!paired && !paired.error().message.isEmpty());
        QCOMPARE(readFile(m_eventFile), QByteArray("[]\n"));
        QCOMPARE(lines.mid(0, 2), QStringList({"debug: warning: failed to register pairing agent "
                                               "at /org/kelvane/agent",
                                               "debug: pairing with address aa-bb-cc-dd-ee-ff"}));
        QCOMPARE(
            lines.mid(lines.size() - 2),
            QStringList({"dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent "
                         "(/org/kelvane/agent)",
                         "dbus << UnregisterAgent ok"}));
        QVERIFY(!lines.join('\n').contains("using adapter"));
    }
};

QTEST_GUILESS_MAIN(TestPairing)
#include "test_pairing.moc"
