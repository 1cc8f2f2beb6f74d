#include "pairing/registration.h"

#include "bluez/call.h"
#include "bluez/connection.h"
#include "bluez/names.h"
#include "core/trace.h"
#include "pairing/agent.h"

namespace kelvane::pairing {

namespace trace = core::DbusTrace;

namespace {

const QString capability = QStringLiteral("KeyboardDisplay");

core::Expected<bluez::Message> callAgentManager(const QString &method, const QString &summary,
                                                std::vector<bluez::Argument> arguments,
                                                bluez::Tracing tracing) {
    return bluez::callBluez({bluez::names::bluezRoot, bluez::names::agentManager, method,
                             std::move(arguments), summary},
                            tracing);
}

// A failed step is a warning line; success is the ordinary outcome line.
void registerStep(const QString &method, const QString &summary,
                  std::vector<bluez::Argument> arguments) {
    const auto reply =
        callAgentManager(method, summary, std::move(arguments), bluez::Tracing::FailureAsNote);
    if (!reply)
        trace::debug("warning: " + method.toUtf8() + " failed: " + reply.error().message.toUtf8());
}

core::Expected<QString> bluezOwner() {
    return bluez::nameOwner(bluez::names::service);
}

} // namespace

AgentRegistration::~AgentRegistration() {
    releasePairingAgent(*this);
}

void registerPairingAgent(AgentRegistration &registration, AgentPolicy &policy) {
    registration.exported = false;
    AgentAdaptor adaptor(policy, bluezOwner);
    const core::Status exported = bluez::exportObject(
        agentPath, [adaptor](DBusMessage *call) mutable { return adaptor.handle(call); });
    if (!exported) {
        trace::debug("warning: failed to register pairing agent at " + agentPath.toUtf8());
        return;
    }
    registration.exported = true;
    trace::debug("registered pairing agent at " + agentPath.toUtf8());

    const bluez::ObjectPath agent{agentPath};
    // A registration left over from an earlier run would make RegisterAgent
    // fail with AlreadyExists; whether there was one does not matter.
    (void)callAgentManager(QStringLiteral("UnregisterAgent"), agentPath, {agent},
                           bluez::Tracing::CallLineOnly);
    registerStep(QStringLiteral("RegisterAgent"), agentPath + QLatin1Char(' ') + capability,
                 {agent, capability});
    registerStep(QStringLiteral("RequestDefaultAgent"), agentPath, {agent});
}

void releasePairingAgent(AgentRegistration &registration) {
    const QString method = QStringLiteral("UnregisterAgent");
    (void)callAgentManager(method, agentPath, {bluez::ObjectPath{agentPath}},
                           bluez::Tracing::CallLineOnly);
    // BlueZ may be gone or may never have known the agent; either way the
    // agent is withdrawn as far as this run is concerned.
    trace::reply(method, true, QString());
    if (registration.exported)
        bluez::unexportObject(agentPath);
    registration.exported = false;
}

} // namespace kelvane::pairing
