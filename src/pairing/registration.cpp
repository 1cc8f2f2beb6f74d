#include "pairing/registration.h"

#include "bluez/dbustypes.h"
#include "bluez/names.h"
#include "core/trace.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace kelvane::pairing {

namespace trace = core::DbusTrace;

namespace {

const QString capability = QStringLiteral("KeyboardDisplay");

// Traces the call, then makes it blocking; the reply is the caller's to judge.
// A plain message rather than an introspected proxy, so the withdrawal still
// goes out when the agent manager cannot be introspected.
QDBusMessage callAgentManager(const QString &method, const QString &summary,
                              const QVariantList &arguments) {
    trace::call(bluez::names::service, bluez::names::bluezRoot, bluez::names::agentManager, method,
                summary);
    QDBusMessage message = QDBusMessage::createMethodCall(
        bluez::names::service, bluez::names::bluezRoot, bluez::names::agentManager, method);
    message.setArguments(arguments);
    return QDBusConnection::systemBus().call(message, QDBus::Block, -1);
}

QVariant agentPathArgument() {
    return QVariant::fromValue(QDBusObjectPath(agentPath));
}

bool isError(const QDBusMessage &reply) {
    return reply.type() == QDBusMessage::ErrorMessage;
}

// A failed step is a warning line; success is the ordinary outcome line.
void reportOutcome(const QString &method, const QDBusMessage &reply) {
    if (isError(reply))
        trace::debug("warning: " + method.toUtf8() + " failed: " + reply.errorMessage().toUtf8());
    else
        trace::reply(method, true, QString());
}

} // namespace

AgentRegistration::~AgentRegistration() {
    releasePairingAgent(*this);
}

void registerPairingAgent(AgentRegistration &registration) {
    registration.agent = nullptr;
    registration.exported = false;
    bluez::registerDbusTypes();
    resetReportedPasskey();
    registration.agent = new PairingAgent();
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject(agentPath, registration.agent, QDBusConnection::ExportAllSlots)) {
        trace::debug("warning: failed to register pairing agent at " + agentPath.toUtf8());
        return;
    }
    registration.exported = true;
    trace::debug("registered pairing agent at " + agentPath.toUtf8());

    // A registration left over from an earlier run would make RegisterAgent
    // fail with AlreadyExists; whether there was one does not matter.
    callAgentManager(QStringLiteral("UnregisterAgent"), agentPath, {agentPathArgument()});
    reportOutcome(QStringLiteral("RegisterAgent"),
                  callAgentManager(QStringLiteral("RegisterAgent"),
                                   QStringLiteral("%1 %2").arg(agentPath, capability),
                                   {agentPathArgument(), capability}));
    reportOutcome(
        QStringLiteral("RequestDefaultAgent"),
        callAgentManager(QStringLiteral("RequestDefaultAgent"), agentPath, {agentPathArgument()}));
}

void releasePairingAgent(AgentRegistration &registration) {
    const QString method = QStringLiteral("UnregisterAgent");
    callAgentManager(method, agentPath, {agentPathArgument()});
    // BlueZ may be gone or may never have known the agent; either way the
    // agent is withdrawn as far as this run is concerned.
    trace::reply(method, true, QString());
    if (registration.exported)
        QDBusConnection::systemBus().unregisterObject(agentPath);
    registration.exported = false;
    delete registration.agent;
    registration.agent = nullptr;
}

} // namespace kelvane::pairing
