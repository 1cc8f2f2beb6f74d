#pragma once

#include "bluez/message.h"
#include "core/expected.h"

#include <QString>

#include <functional>

// The run's one connection to the system bus: private, opened on first use.
namespace kelvane::bluez {

// How a caller waits for an answer. Agent calls that arrive meanwhile are
// served only while a call waits ServingAgent, and queued otherwise.
enum class Waiting { Blocking, ServingAgent };

// The connection, or why it could not be opened (the bus library's error,
// remembered: every later use fails the same way at once).
core::Expected<DBusConnection *> systemBus();

// Sends a method call and waits, with the bus library's default timeout, for
// the message that answers it: a method return or an error sent by the peer.
// Failing that, the bus library's own error (no reply in time, connection
// gone, no connection).
core::Expected<Message> exchange(DBusMessage *call, Waiting waiting);

// Answers the method calls arriving for an object path: the reply to send,
// or null for a call the handler does not know (the bus library answers
// those with UnknownMethod).
using ObjectHandler = std::function<Message(DBusMessage *call)>;
core::Status exportObject(const QString &path, ObjectHandler handler);
void unexportObject(const QString &path);

// The unique name that currently owns `name`, asked of the bus daemon.
core::Expected<QString> nameOwner(const QString &name);

} // namespace kelvane::bluez
