#include "bluez/call.h"

#include "bluez/names.h"
#include "core/trace.h"

#include <optional>

namespace kelvane::bluez {

namespace {

std::optional<core::Error> &timedOut() {
    static std::optional<core::Error> error;
    return error;
}

core::Expected<Message> send(const MethodCall &call) {
    if (timedOut())
        return *timedOut();
    // Opens the connection (and loads the bus library) before anything is built.
    if (const auto connection = systemBus(); !connection)
        return connection.error();
    const auto message =
        methodCall(names::service, call.path, call.interface, call.method, call.arguments);
    if (!message)
        return message.error();
    auto answer = exchange(message->get(), call.waiting);
    if (!answer) {
        // exchange reports NoReply only when the time ran out.
        if (answer.error().name == QLatin1String(DBUS_ERROR_NO_REPLY))
            timedOut() = answer.error();
        return answer.error();
    }
    if (libdbus().dbus_message_get_type(answer->get()) == DBUS_MESSAGE_TYPE_ERROR)
        return errorOf(answer->get());
    return answer;
}

void traceOutcome(const MethodCall &call, Tracing tracing, const core::Expected<Message> &reply) {
    if (tracing == Tracing::Untraced || tracing == Tracing::CallLineOnly)
        return;
    if (tracing == Tracing::FailureAsNote && !reply)
        return;
    const QString &name = call.outcomeName.isEmpty() ? call.method : call.outcomeName;
    core::DbusTrace::reply(name, reply.ok(), reply ? call.okDetail : reply.error().message);
}

} // namespace

core::Expected<Message> callBluez(const MethodCall &call, Tracing tracing) {
    if (tracing != Tracing::Untraced)
        core::DbusTrace::call(names::service, call.path, call.interface, call.method, call.summary);
    core::Expected<Message> reply = send(call);
    traceOutcome(call, tracing, reply);
    return reply;
}

core::Status statusOf(const core::Expected<Message> &reply) {
    if (!reply)
        return reply.error();
    return {};
}

bool endsFallbackChain(const core::Error &error) {
    for (const char *name : {DBUS_ERROR_NO_REPLY, DBUS_ERROR_SERVICE_UNKNOWN,
                             DBUS_ERROR_NAME_HAS_NO_OWNER, DBUS_ERROR_DISCONNECTED}) {
        if (error.name == QLatin1String(name))
            return true;
    }
    return !systemBus().ok();
}

bool isPageTimeout(const core::Error &error) {
    return error.message.contains(QLatin1String("Page Timeout"), Qt::CaseInsensitive);
}

} // namespace kelvane::bluez
