#include "pairing/agent.h"

#include "bluez/names.h"
#include "core/trace.h"
#include "pairing/eventlog.h"

#include <QJsonObject>

namespace kelvane::pairing {

namespace trace = core::DbusTrace;

namespace {

// Read and written only on the main thread (the agent's callbacks run there).
QString reportedPasskey;

void incoming(const QString &path, const char *method, const QString &args = QString()) {
    trace::incoming(path, bluez::names::agent, QLatin1String(method), args);
}

} // namespace

QString formatPasskey(quint32 passkey) {
    return QStringLiteral("%1").arg(passkey, 6, 10, QLatin1Char('0'));
}

void reportPasskey(quint32 passkey) {
    const QString text = formatPasskey(passkey);
    if (text == reportedPasskey)
        return;
    reportedPasskey = text;
    QJsonObject extra;
    extra.insert(QStringLiteral("passkey"), text);
    PairingEventLog::logEvent(QStringLiteral("passkey"), extra);
}

void resetReportedPasskey() {
    reportedPasskey.clear();
}

QString lastReportedPasskey() {
    return reportedPasskey;
}

void PairingAgent::reject(const QString &message) {
    if (calledFromDBus())
        sendErrorReply(QStringLiteral("org.bluez.Error.Rejected"), message);
}

void PairingAgent::Release() {
    incoming(agentPath, "Release");
}

QString PairingAgent::RequestPinCode(const QDBusObjectPath &device) {
    incoming(device.path(), "RequestPinCode");
    trace::debug("pairing: legacy PIN pairing is not supported for device " +
                 device.path().toUtf8());
    reject(QStringLiteral("Legacy PIN pairing is not supported"));
    return QString();
}

void PairingAgent::DisplayPinCode(const QDBusObjectPath &device, const QString &pincode) {
    incoming(device.path(), "DisplayPinCode", QStringLiteral("pin=%1").arg(pincode));
    trace::debug("pairing: device " + device.path().toUtf8() + " shows PIN " + pincode.toUtf8());
    // A PIN that is not a decimal number (or too long for 32 bits) reads as 0.
    reportPasskey(pincode.toUInt(nullptr, 10));
}

quint32 PairingAgent::RequestPasskey(const QDBusObjectPath &device) {
    incoming(device.path(), "RequestPasskey");
    trace::debug("pairing: legacy passkey entry is not supported for device " +
                 device.path().toUtf8());
    reject(QStringLiteral("Legacy passkey entry is not supported"));
    return 0;
}

void PairingAgent::DisplayPasskey(const QDBusObjectPath &device, quint32 passkey, quint16 entered) {
    const QString text = formatPasskey(passkey);
    incoming(device.path(), "DisplayPasskey",
             QStringLiteral("passkey=%1 entered=%2").arg(text).arg(entered));
    // BlueZ calls again for every keypress on the remote side; only the first
    // call (nothing typed yet) is news for the reader of the event file.
    if (entered == 0) {
        reportPasskey(passkey);
        return;
    }
    trace::debug("pairing: device " + device.path().toUtf8() + " passkey " + text.toUtf8() + " (" +
                 QByteArray::number(entered) + " digits entered)");
}

void PairingAgent::RequestConfirmation(const QDBusObjectPath &device, quint32 passkey) {
    const QString text = formatPasskey(passkey);
    incoming(device.path(), "RequestConfirmation", QStringLiteral("passkey=%1").arg(text));
    reportPasskey(passkey);
    trace::debug("pairing: confirming passkey " + text.toUtf8() + " for device " +
                 device.path().toUtf8());
}

void PairingAgent::RequestAuthorization(const QDBusObjectPath &device) {
    incoming(device.path(), "RequestAuthorization");
}

void PairingAgent::AuthorizeService(const QDBusObjectPath &device, const QString &uuid) {
    incoming(device.path(), "AuthorizeService", QStringLiteral("uuid=%1").arg(uuid));
}

void PairingAgent::Cancel() {
    incoming(QStringLiteral("/"), "Cancel");
    trace::debug("pairing: cancelled by BlueZ");
}

} // namespace kelvane::pairing
