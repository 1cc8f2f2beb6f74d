#include "pairing/agentpolicy.h"

#include "bluez/names.h"
#include "core/trace.h"
#include "pairing/eventlog.h"

namespace kelvane::pairing {

namespace trace = core::DbusTrace;

namespace {

void incoming(const QString &path, const char *method, const QString &args = QString()) {
    trace::incoming(path, bluez::names::agent, QLatin1String(method), args);
}

core::Error rejection(const char *message) {
    return core::failure(QLatin1String(message), bluez::names::rejected);
}

} // namespace

QString formatPasskey(quint32 passkey) {
    return QStringLiteral("%1").arg(passkey, 6, 10, QLatin1Char('0'));
}

void AgentPolicy::expectDevice(const QString &devicePath) {
    m_device = devicePath;
}

core::Status AgentPolicy::checkDevice(const QString &device, const char *method) const {
    if (!m_device.isEmpty() && device == m_device)
        return {};
    trace::debug("pairing: refusing " + QByteArray(method) + " for device " + device.toUtf8() +
                 ": not the device being paired");
    return rejection("Not the device being paired");
}

void AgentPolicy::reportPasskey(quint32 passkey) {
    const QString text = formatPasskey(passkey);
    if (text == m_lastPasskey)
        return;
    m_lastPasskey = text;
    PairingEventLog::logEvent(QStringLiteral("passkey"), text);
}

void AgentPolicy::release() {
    incoming(agentPath, "Release");
}

core::Expected<QString> AgentPolicy::requestPinCode(const QString &device) {
    incoming(device, "RequestPinCode");
    if (const core::Status ours = checkDevice(device, "RequestPinCode"); !ours)
        return ours.error();
    trace::debug("pairing: legacy PIN pairing is not supported for device " + device.toUtf8());
    return rejection("Legacy PIN pairing is not supported");
}

core::Status AgentPolicy::displayPinCode(const QString &device, const QString &pincode) {
    incoming(device, "DisplayPinCode", QStringLiteral("pin=%1").arg(pincode));
    if (const core::Status ours = checkDevice(device, "DisplayPinCode"); !ours)
        return ours;
    trace::debug("pairing: device " + device.toUtf8() + " shows PIN " + pincode.toUtf8());
    // A PIN that is not a decimal number (or too long for 32 bits) reads as 0.
    reportPasskey(pincode.toUInt(nullptr, 10));
    return {};
}

core::Expected<quint32> AgentPolicy::requestPasskey(const QString &device) {
    incoming(device, "RequestPasskey");
    if (const core::Status ours = checkDevice(device, "RequestPasskey"); !ours)
        return ours.error();
    trace::debug("pairing: legacy passkey entry is not supported for device " + device.toUtf8());
    return rejection("Legacy passkey entry is not supported");
}

core::Status AgentPolicy::displayPasskey(const QString &device, quint32 passkey, quint16 entered) {
    const QString text = formatPasskey(passkey);
    incoming(device, "DisplayPasskey",
             QStringLiteral("passkey=%1 entered=%2").arg(text).arg(entered));
    if (const core::Status ours = checkDevice(device, "DisplayPasskey"); !ours)
        return ours;
    // BlueZ calls again for every keypress on the remote side; only the first
    // call (nothing typed yet) is news for the reader of the event file.
    if (entered == 0)
        reportPasskey(passkey);
    else
        trace::debug("pairing: device " + device.toUtf8() + " passkey " + text.toUtf8() + " (" +
                     QByteArray::number(entered) + " digits entered)");
    return {};
}

core::Status AgentPolicy::requestConfirmation(const QString &device, quint32 passkey) {
    const QString text = formatPasskey(passkey);
    incoming(device, "RequestConfirmation", QStringLiteral("passkey=%1").arg(text));
    if (const core::Status ours = checkDevice(device, "RequestConfirmation"); !ours)
        return ours;
    reportPasskey(passkey);
    trace::debug("pairing: confirming passkey " + text.toUtf8() + " for device " + device.toUtf8());
    return {};
}

core::Status AgentPolicy::requestAuthorization(const QString &device) {
    incoming(device, "RequestAuthorization");
    return checkDevice(device, "RequestAuthorization");
}

core::Status AgentPolicy::authorizeService(const QString &device, const QString &uuid) {
    incoming(device, "AuthorizeService", QStringLiteral("uuid=%1").arg(uuid));
    return checkDevice(device, "AuthorizeService");
}

void AgentPolicy::cancel() {
    incoming(QStringLiteral("/"), "Cancel");
    trace::debug("pairing: cancelled by BlueZ");
}

} // namespace kelvane::pairing
