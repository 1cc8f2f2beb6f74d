#include "bluez/connection.h"

#include <chrono>
#include <optional>

namespace kelvane::bluez {

namespace {

// libdbus's default reply timeout, which Waiting::ServingAgent keeps itself.
constexpr std::chrono::milliseconds defaultTimeout{25000};

const char *const noReplyText =
    "Did not receive a reply. Possible causes include: the remote application did not send a "
    "reply, the message bus security policy blocked the reply, the reply timeout expired, or the "
    "network connection was broken.";
const char *const disconnectedText = "Connection was disconnected before a reply was received";

core::Error busError(const char *name, const char *message) {
    return core::failure(QString::fromUtf8(message), QString::fromUtf8(name));
}

core::Error takeError(DBusError &error) {
    const core::Error taken = busError(error.name, error.message);
    libdbus().dbus_error_free(&error);
    return taken;
}

struct Bus {
    bool opened = false;
    DBusConnection *connection = nullptr;
    std::optional<core::Error> failure;

    ~Bus() {
        if (!connection)
            return;
        // Replies the agent queued in the last dispatch still go out.
        libdbus().dbus_connection_flush(connection);
        libdbus().dbus_connection_close(connection);
        libdbus().dbus_connection_unref(connection);
    }
};

Bus &bus() {
    static Bus instance;
    return instance;
}

struct PendingUnref {
    void operator()(DBusPendingCall *pending) const { libdbus().dbus_pending_call_unref(pending); }
};
using Pending = std::unique_ptr<DBusPendingCall, PendingUnref>;

// Reads, writes and dispatches (the agent's calls among them) until the
// answer is there or the default timeout has passed.
bool serveUntilCompleted(DBusConnection *connection, DBusPendingCall *pending) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + defaultTimeout;
    while (!libdbus().dbus_pending_call_get_completed(pending)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !libdbus().dbus_connection_read_write_dispatch(
                                     connection, static_cast<int>(left.count())))
            break;
    }
    return libdbus().dbus_pending_call_get_completed(pending);
}

// libdbus answers a call that got no reply with an error message of its own,
// one without a sender. It does so on a timeout and when the connection
// closes; the two are told apart by the connection.
core::Expected<Message> answerOf(DBusConnection *connection, Message reply) {
    if (!reply)
        return busError(DBUS_ERROR_DISCONNECTED, disconnectedText);
    const bool local = libdbus().dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR &&
                       libdbus().dbus_message_get_sender(reply.get()) == nullptr;
    if (!local)
        return reply;
    if (!libdbus().dbus_connection_get_is_connected(connection))
        return busError(DBUS_ERROR_DISCONNECTED, disconnectedText);
    return errorOf(reply.get());
}

DBusHandlerResult dispatchToHandler(DBusConnection *connection, DBusMessage *message,
                                    void *handler) {
    const Message reply = (*static_cast<ObjectHandler *>(handler))(message);
    if (!reply)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    if (!libdbus().dbus_message_get_no_reply(message))
        libdbus().dbus_connection_send(connection, reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

void releaseHandler(DBusConnection *, void *handler) {
    delete static_cast<ObjectHandler *>(handler);
}

const DBusObjectPathVTable handlerTable = {releaseHandler, dispatchToHandler, nullptr,
                                           nullptr,        nullptr,           nullptr};

} // namespace

core::Expected<DBusConnection *> systemBus() {
    Bus &b = bus();
    if (!b.opened) {
        b.opened = true;
        if (!loadLibDbus()) {
            b.failure = busError(DBUS_ERROR_FAILED, libdbusLoadError());
            return *b.failure;
        }
        DBusError error;
        libdbus().dbus_error_init(&error);
        b.connection = libdbus().dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
        if (b.connection)
            // Otherwise libdbus ends the process when the bus goes away.
            libdbus().dbus_connection_set_exit_on_disconnect(b.connection, FALSE);
        else
            b.failure = takeError(error);
    }
    if (b.failure)
        return *b.failure;
    return b.connection;
}

core::Expected<Message> exchange(DBusMessage *call, Waiting waiting) {
    const auto connection = systemBus();
    if (!connection)
        return connection.error();
    DBusPendingCall *sent = nullptr;
    if (!libdbus().dbus_connection_send_with_reply(*connection, call, &sent,
                                                   DBUS_TIMEOUT_USE_DEFAULT))
        return busError(DBUS_ERROR_NO_MEMORY, "Not enough memory");
    if (!sent)
        return busError(DBUS_ERROR_DISCONNECTED, disconnectedText);
    const Pending pending(sent);
    if (waiting == Waiting::Blocking)
        libdbus().dbus_pending_call_block(sent);
    else if (!serveUntilCompleted(*connection, sent)) {
        libdbus().dbus_pending_call_cancel(sent);
        if (!libdbus().dbus_connection_get_is_connected(*connection))
            return busError(DBUS_ERROR_DISCONNECTED, disconnectedText);
        return busError(DBUS_ERROR_NO_REPLY, noReplyText);
    }
    return answerOf(*connection, Message(libdbus().dbus_pending_call_steal_reply(sent)));
}

core::Status exportObject(const QString &path, ObjectHandler handler) {
    const auto connection = systemBus();
    if (!connection)
        return connection.error();
    auto *owned = new ObjectHandler(std::move(handler));
    DBusError error;
    libdbus().dbus_error_init(&error);
    if (libdbus().dbus_connection_try_register_object_path(*connection, path.toUtf8().constData(),
                                                           &handlerTable, owned, &error))
        return {};
    delete owned;
    return takeError(error);
}

void unexportObject(const QString &path) {
    if (const auto connection = systemBus())
        libdbus().dbus_connection_unregister_object_path(*connection, path.toUtf8().constData());
}

core::Expected<QString> nameOwner(const QString &name) {
    auto call =
        methodCall(QStringLiteral(DBUS_SERVICE_DBUS), QStringLiteral(DBUS_PATH_DBUS),
                   QStringLiteral(DBUS_INTERFACE_DBUS), QStringLiteral("GetNameOwner"), {name});
    if (!call)
        return call.error();
    const auto answer = exchange(call->get(), Waiting::Blocking);
    if (!answer)
        return answer.error();
    if (libdbus().dbus_message_get_type(answer->get()) == DBUS_MESSAGE_TYPE_ERROR)
        return errorOf(answer->get());
    const std::vector<QVariant> arguments = readArguments(answer->get());
    return arguments.empty() ? QString() : arguments.front().toString();
}

} // namespace kelvane::bluez
