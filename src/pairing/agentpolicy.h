#pragma once

#include "core/expected.h"

#include <QString>

namespace kelvane::pairing {

// Where the agent lives on the system bus while a pairing runs.
inline const QString agentPath = QStringLiteral("/org/kelvane/agent");

// Decimal, zero-padded to at least six digits; longer values are not cut.
QString formatPasskey(quint32 passkey);

// How the tool answers BlueZ's agent requests, without user interaction:
// numeric comparison and passkey display are accepted and their passkey
// published as a "passkey" event, legacy PIN and passkey entry are refused,
// authorizations are granted. Requests about any device but the one being
// paired are refused. Every request is traced as an incoming line.
class AgentPolicy {
public:
    // The device Pair runs for; until it is set every device is refused.
    void expectDevice(const QString &devicePath);

    void release();
    core::Expected<QString> requestPinCode(const QString &device);
    core::Status displayPinCode(const QString &device, const QString &pincode);
    core::Expected<quint32> requestPasskey(const QString &device);
    core::Status displayPasskey(const QString &device, quint32 passkey, quint16 entered);
    core::Status requestConfirmation(const QString &device, quint32 passkey);
    core::Status requestAuthorization(const QString &device);
    core::Status authorizeService(const QString &device, const QString &uuid);
    void cancel();

private:
    core::Status checkDevice(const QString &device, const char *method) const;
    // A passkey that BlueZ repeats is published once.
    void reportPasskey(quint32 passkey);

    QString m_device;
    QString m_lastPasskey;
};

} // namespace kelvane::pairing
