#include "pairing/agent.h"

#include "bluez/names.h"
#include "core/trace.h"

#include <array>

namespace kelvane::pairing {

namespace {

using Arguments = std::vector<QVariant>;
using bluez::Message;

QString pathAt(const Arguments &arguments, size_t index) {
    return arguments.at(index).value<bluez::ObjectPath>().path;
}

Message replyTo(DBusMessage *call, const core::Status &status) {
    return status ? bluez::methodReturn(call, {}) : bluez::errorReply(call, status.error());
}

template <typename T> Message replyTo(DBusMessage *call, const core::Expected<T> &value) {
    return value ? bluez::methodReturn(call, {*value}) : bluez::errorReply(call, value.error());
}

// One method of org.bluez.Agent1: its name, its argument signature, and
// how the call reaches the policy. The arguments have the signature's types.
struct AgentMethod {
    const char *name;
    const char *signature;
    Message (*invoke)(AgentPolicy &policy, DBusMessage *call, const Arguments &arguments);
};

const std::array<AgentMethod, 9> agentMethods{{
    {"Release", "",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &) {
         policy.release();
         return replyTo(call, core::Status());
     }},
    {"RequestPinCode", "o",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call, policy.requestPinCode(pathAt(arguments, 0)));
     }},
    {"DisplayPinCode", "os",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call,
                        policy.displayPinCode(pathAt(arguments, 0), arguments.at(1).toString()));
     }},
    {"RequestPasskey", "o",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call, policy.requestPasskey(pathAt(arguments, 0)));
     }},
    {"DisplayPasskey", "ouq",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call,
                        policy.displayPasskey(pathAt(arguments, 0), arguments.at(1).toUInt(),
                                              static_cast<quint16>(arguments.at(2).toUInt())));
     }},
    {"RequestConfirmation", "ou",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call,
                        policy.requestConfirmation(pathAt(arguments, 0), arguments.at(1).toUInt()));
     }},
    {"RequestAuthorization", "o",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call, policy.requestAuthorization(pathAt(arguments, 0)));
     }},
    {"AuthorizeService", "os",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &arguments) {
         return replyTo(call,
                        policy.authorizeService(pathAt(arguments, 0), arguments.at(1).toString()));
     }},
    {"Cancel", "",
     [](AgentPolicy &policy, DBusMessage *call, const Arguments &) {
         policy.cancel();
         return replyTo(call, core::Status());
     }},
}};

const AgentMethod *findMethod(const QString &name) {
    for (const AgentMethod &method : agentMethods) {
        if (name == QLatin1String(method.name))
            return &method;
    }
    return nullptr;
}

core::Error notFromBluez() {
    return core::failure(QStringLiteral("only BlueZ may call the pairing agent"),
                         QStringLiteral(DBUS_ERROR_ACCESS_DENIED));
}

} // namespace

AgentAdaptor::AgentAdaptor(AgentPolicy &policy, OwnerLookup bluezOwner)
    : m_policy(policy), m_bluezOwner(std::move(bluezOwner)) {}

bool AgentAdaptor::fromBluez(const QString &sender) const {
    const auto owner = m_bluezOwner();
    return !sender.isEmpty() && owner && *owner == sender;
}

bluez::Message AgentAdaptor::handle(DBusMessage *message) {
    const auto call = bluez::incomingCall(message);
    if (!call || call->interface != bluez::names::agent)
        return {};
    const AgentMethod *method = findMethod(call->member);
    if (!method)
        return {};
    // Anyone on the bus can send to our unique name: a call that does not
    // come from BlueZ has no effect at all.
    if (!fromBluez(call->sender)) {
        core::DbusTrace::debug("pairing: ignoring " + call->member.toUtf8() + " from " +
                               call->sender.toUtf8() + ", which is not BlueZ");
        return bluez::errorReply(message, notFromBluez());
    }
    if (call->signature != QLatin1String(method->signature))
        return bluez::errorReply(message, bluez::unknownMethod(*call));
    return method->invoke(m_policy, message, bluez::readArguments(message));
}

} // namespace kelvane::pairing
