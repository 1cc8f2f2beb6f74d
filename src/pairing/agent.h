#pragma once

#include <QDBusContext>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>

namespace kelvane::pairing {

// Where the agent lives on the system bus while a pairing runs.
inline const QString agentPath = QStringLiteral("/org/kelvane/agent");

// Decimal, zero-padded to at least six digits; longer values are not cut.
QString formatPasskey(quint32 passkey);

// Logs a "passkey" event unless this passkey was the last one reported, so a
// passkey that BlueZ repeats shows up once.
void reportPasskey(quint32 passkey);
void resetReportedPasskey();
QString lastReportedPasskey();

// BlueZ's org.bluez.Agent1 callbacks, answered without user interaction:
// numeric comparison and passkey display are accepted and published, legacy
// PIN and passkey entry are rejected, authorizations are granted. The slot
// names and signatures are the D-Bus interface; do not rename or reorder.
class PairingAgent : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    PairingAgent() = default;

public slots:
    void Release();
    QString RequestPinCode(const QDBusObjectPath &device);
    void DisplayPinCode(const QDBusObjectPath &device, const QString &pincode);
    quint32 RequestPasskey(const QDBusObjectPath &device);
    void DisplayPasskey(const QDBusObjectPath &device, quint32 passkey, quint16 entered);
    void RequestConfirmation(const QDBusObjectPath &device, quint32 passkey);
    void RequestAuthorization(const QDBusObjectPath &device);
    void AuthorizeService(const QDBusObjectPath &device, const QString &uuid);
    void Cancel();

private:
    // Refuses a legacy request, but only towards BlueZ: a direct C++ call has
    // no message to answer.
    void reject(const QString &message);
};

} // namespace kelvane::pairing
