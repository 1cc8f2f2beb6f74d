#pragma once

#include "bluez/libdbus.h"
#include "bluez/objectmap.h"
#include "core/expected.h"

#include <QMetaType>
#include <QString>
#include <QVariant>

#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

// D-Bus messages: building what the tool sends, reading what it receives.
namespace kelvane::bluez {

struct MessageUnref {
    void operator()(DBusMessage *message) const { libdbus().dbus_message_unref(message); }
};
// An owned reference to a libdbus message; null means "no message".
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

// An object path (o). Read into a property map it converts to nothing, like
// every value that is not a basic type or an array of strings (OpaqueValue).
struct ObjectPath {
    QString path;
};
struct OpaqueValue {};

// The arguments the tool sends: s, o, a variant holding a boolean, an a{sv}
// whose values are texts, u.
struct BoolVariant {
    bool value;
};
using TextDictionary = std::vector<std::pair<QString, QString>>;
using Argument = std::variant<QString, ObjectPath, BoolVariant, TextDictionary, quint32>;

core::Expected<Message> methodCall(const QString &destination, const QString &path,
                                   const QString &interface, const QString &method,
                                   const std::vector<Argument> &arguments);
Message methodReturn(DBusMessage *call, const std::vector<Argument> &arguments);
Message errorReply(DBusMessage *call, const core::Error &error);

// An error message as an Error: its name and its first argument, if a text.
core::Error errorOf(DBusMessage *errorMessage);

// The header of a method call that arrived for one of our objects; a field
// the message does not carry is empty. Nothing for other kinds of message.
struct IncomingCall {
    QString interface;
    QString member;
    QString signature;
    QString sender;
};
std::optional<IncomingCall> incomingCall(DBusMessage *message);

// What the bus library answers a call for which no method matches.
core::Error unknownMethod(const IncomingCall &call);

// Texts are decoded byte for byte (a leading U+FEFF stays). Numbers and
// booleans keep their D-Bus type, so they convert as QVariant converts them.
QVariant readValue(DBusMessageIter *iterator);
std::vector<QVariant> readArguments(DBusMessage *message);

// Replies of a known signature; another signature reads as empty/invalid.
ManagedObjectMap readManagedObjects(DBusMessage *reply); // a{oa{sa{sv}}}
PropertyMap readProperties(DBusMessage *reply);          // a{sv}
QVariant readVariant(DBusMessage *reply);                // v

} // namespace kelvane::bluez

Q_DECLARE_METATYPE(kelvane::bluez::ObjectPath)
Q_DECLARE_METATYPE(kelvane::bluez::OpaqueValue)
