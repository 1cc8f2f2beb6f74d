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

const AgentMethod *findMethod(const char *name) {
    for (const AgentMethod &method : agentMethods) {
        if (qstrcmp(method.name, name) == 0)
            return &method;
    }
    return nullptr;
}

// What libdbus itself answers for a method it does not find.
core::Error unknownMethod(DBusMessage *call) {
    return core::failure(
        QStringLiteral("Method \"%1\" with signature \"%2\" on interface \"%3\" doesn't exist\n")
            .arg(QString::fromUtf8(dbus_message_get_member(call)),
                 QString::fromUtf8(dbus_message_get_signature(call)), bluez::names::agent),
        QStringLiteral(DBUS_ERROR_UNKNOWN_METHOD));
}

core::Error notFromBluez() {
    return core::failure(QStringLiteral("only BlueZ may call the pairing agent"),
                         QStringLiteral(DBUS_ERROR_ACCESS_DENIED));
}

} // namespace

AgentAdaptor::AgentAdaptor(AgentPolicy &policy, OwnerLookup bluezOwner)
    : m_policy(policy), m_bluezOwner(std::move(bluezOwner)) {}

bool AgentAdaptor::fromBluez(DBusMessage *call) const {
    const char *sender = dbus_message_get_sender(call);
    const auto owner = m_bluezOwner();
    return sender && owner && *owner == QLatin1String(sender);
}

bluez::Message AgentAdaptor::handle(DBusMessage *call) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        bluez::names::agent != QLatin1String(dbus_message_get_interface(call)))
        return {};
    const AgentMethod *method = findMethod(dbus_message_get_member(call));
    if (!method)
        return {};
    // Anyone on the bus can send to our unique name: a call that does not
    // come from BlueZ has no effect at all.
    if (!fromBluez(call)) {
        core::DbusTrace::debug("pairing: ignoring " + QByteArray(method->name) + " from " +
                               QByteArray(dbus_message_get_sender(call)) + ", which is not BlueZ");
        return bluez::errorReply(call, notFromBluez());
    }
    if (!dbus_message_has_signature(call, method->signature))
        return bluez::errorReply(call, unknownMethod(call));
    return method->invoke(m_policy, call, bluez::readArguments(call));
}

} // namespace kelvane::pairing
