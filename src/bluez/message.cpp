#include "bluez/message.h"

#include "core/utf8.h"

namespace kelvane::bluez {

namespace {

// libdbus aborts the process on arguments it considers invalid, so whatever
// is not a constant of ours is checked before it gets there.
bool isSendableText(const QByteArray &bytes) {
    return !bytes.contains('\0') && libdbus().dbus_validate_utf8(bytes.constData(), nullptr);
}

bool appendBasic(DBusMessageIter *iterator, int type, const void *value) {
    return libdbus().dbus_message_iter_append_basic(iterator, type, value);
}

bool appendText(DBusMessageIter *iterator, const QString &text) {
    const QByteArray bytes = text.toUtf8();
    const char *data = bytes.constData();
    return isSendableText(bytes) && appendBasic(iterator, DBUS_TYPE_STRING, &data);
}

bool appendPath(DBusMessageIter *iterator, const QString &path) {
    const QByteArray bytes = path.toUtf8();
    const char *data = bytes.constData();
    return libdbus().dbus_validate_path(data, nullptr) &&
           appendBasic(iterator, DBUS_TYPE_OBJECT_PATH, &data);
}

// Opens a container, fills it, closes it; false (and the message unusable)
// when anything failed.
template <typename Fill>
bool appendContainer(DBusMessageIter *iterator, int type, const char *signature, Fill fill) {
    DBusMessageIter inner;
    if (!libdbus().dbus_message_iter_open_container(iterator, type, signature, &inner))
        return false;
    if (!fill(&inner)) {
        libdbus().dbus_message_iter_abandon_container(iterator, &inner);
        return false;
    }
    return libdbus().dbus_message_iter_close_container(iterator, &inner);
}

struct Appender {
    DBusMessageIter *iterator;

    bool operator()(const QString &text) const { return appendText(iterator, text); }
    bool operator()(const ObjectPath &path) const { return appendPath(iterator, path.path); }
    bool operator()(quint32 number) const {
        const dbus_uint32_t value = number;
        return appendBasic(iterator, DBUS_TYPE_UINT32, &value);
    }
    bool operator()(const BoolVariant &variant) const {
        const dbus_bool_t value = variant.value;
        return appendContainer(iterator, DBUS_TYPE_VARIANT, "b", [&](DBusMessageIter *inner) {
            return appendBasic(inner, DBUS_TYPE_BOOLEAN, &value);
        });
    }
    bool operator()(const TextDictionary &dictionary) const {
        return appendContainer(iterator, DBUS_TYPE_ARRAY, "{sv}", [&](DBusMessageIter *array) {
            for (const auto &[key, text] : dictionary) {
                const bool appended =
                    appendContainer(array, DBUS_TYPE_DICT_ENTRY, nullptr, [&](DBusMessageIter *e) {
                        return appendText(e, key) &&
                               appendContainer(e, DBUS_TYPE_VARIANT, "s", [&](DBusMessageIter *v) {
                                   return appendText(v, text);
                               });
                    });
                if (!appended)
                    return false;
            }
            return true;
        });
    }
};

bool appendArguments(DBusMessage *message, const std::vector<Argument> &arguments) {
    DBusMessageIter iterator;
    libdbus().dbus_message_iter_init_append(message, &iterator);
    for (const Argument &argument : arguments) {
        if (!std::visit(Appender{&iterator}, argument))
            return false;
    }
    return true;
}

core::Error invalidArguments(const QString &method) {
    return core::failure(QStringLiteral("invalid arguments for ") + method,
                         QStringLiteral(DBUS_ERROR_INVALID_ARGS));
}

QString textAt(DBusMessageIter *iterator) {
    const char *text = nullptr;
    libdbus().dbus_message_iter_get_basic(iterator, &text);
    return core::fromUtf8(text, static_cast<int>(qstrlen(text)));
}

template <typename T> T basicAt(DBusMessageIter *iterator) {
    T value{};
    libdbus().dbus_message_iter_get_basic(iterator, &value);
    return value;
}

template <typename Visit> void forEachElement(DBusMessageIter *array, Visit visit) {
    DBusMessageIter element;
    libdbus().dbus_message_iter_recurse(array, &element);
    while (libdbus().dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID) {
        visit(&element);
        libdbus().dbus_message_iter_next(&element);
    }
}

// visit(key, value) for each entry of a dictionary (an array of dict entries).
template <typename Visit> void forEachEntry(DBusMessageIter *dictionary, Visit visit) {
    forEachElement(dictionary, [&](DBusMessageIter *entry) {
        DBusMessageIter key;
        libdbus().dbus_message_iter_recurse(entry, &key);
        DBusMessageIter value = key;
        libdbus().dbus_message_iter_next(&value);
        visit(&key, &value);
    });
}

QStringList textsAt(DBusMessageIter *array) {
    QStringList texts;
    forEachElement(array, [&](DBusMessageIter *element) { texts << textAt(element); });
    return texts;
}

QVariant variantContentAt(DBusMessageIter *variant) {
    DBusMessageIter content;
    libdbus().dbus_message_iter_recurse(variant, &content);
    return readValue(&content);
}

// a{sv}, the iterator standing on the array.
PropertyMap propertiesAt(DBusMessageIter *dictionary) {
    PropertyMap properties;
    forEachEntry(dictionary, [&](DBusMessageIter *name, DBusMessageIter *value) {
        properties.insert(textAt(name), variantContentAt(value));
    });
    return properties;
}

bool hasSignature(DBusMessage *message, const char *signature) {
    return message && libdbus().dbus_message_has_signature(message, signature);
}

} // namespace

core::Expected<Message> methodCall(const QString &destination, const QString &path,
                                   const QString &interface, const QString &method,
                                   const std::vector<Argument> &arguments) {
    const QByteArray pathBytes = path.toUtf8();
    if (!libdbus().dbus_validate_path(pathBytes.constData(), nullptr))
        return invalidArguments(method);
    Message message(libdbus().dbus_message_new_method_call(
        destination.toUtf8().constData(), pathBytes.constData(), interface.toUtf8().constData(),
        method.toUtf8().constData()));
    if (!message || !appendArguments(message.get(), arguments))
        return invalidArguments(method);
    return message;
}

Message methodReturn(DBusMessage *call, const std::vector<Argument> &arguments) {
    Message reply(libdbus().dbus_message_new_method_return(call));
    if (reply && appendArguments(reply.get(), arguments))
        return reply;
    return errorReply(call,
                      invalidArguments(QString::fromUtf8(libdbus().dbus_message_get_member(call))));
}

Message errorReply(DBusMessage *call, const core::Error &error) {
    QByteArray name = error.name.toUtf8();
    if (!libdbus().dbus_validate_error_name(name.constData(), nullptr))
        name = DBUS_ERROR_FAILED;
    QByteArray text = error.message.toUtf8();
    if (!isSendableText(text))
        text.clear();
    return Message(libdbus().dbus_message_new_error(call, name.constData(), text.constData()));
}

core::Error errorOf(DBusMessage *errorMessage) {
    core::Error error;
    error.name = QString::fromUtf8(libdbus().dbus_message_get_error_name(errorMessage));
    DBusMessageIter iterator;
    if (libdbus().dbus_message_iter_init(errorMessage, &iterator) &&
        libdbus().dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_STRING)
        error.message = textAt(&iterator);
    return error;
}

std::optional<IncomingCall> incomingCall(DBusMessage *message) {
    if (libdbus().dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return std::nullopt;
    return IncomingCall{QString::fromUtf8(libdbus().dbus_message_get_interface(message)),
                        QString::fromUtf8(libdbus().dbus_message_get_member(message)),
                        QString::fromUtf8(libdbus().dbus_message_get_signature(message)),
                        QString::fromUtf8(libdbus().dbus_message_get_sender(message))};
}

core::Error unknownMethod(const IncomingCall &call) {
    return core::failure(
        QStringLiteral("Method \"%1\" with signature \"%2\" on interface \"%3\" doesn't exist\n")
            .arg(call.member, call.signature, call.interface),
        QStringLiteral(DBUS_ERROR_UNKNOWN_METHOD));
}

QVariant readValue(DBusMessageIter *iterator) {
    switch (libdbus().dbus_message_iter_get_arg_type(iterator)) {
    case DBUS_TYPE_BOOLEAN:
        return QVariant(basicAt<dbus_bool_t>(iterator) != 0);
    case DBUS_TYPE_BYTE:
        return QVariant::fromValue(basicAt<uchar>(iterator));
    case DBUS_TYPE_INT16:
        return QVariant::fromValue(basicAt<dbus_int16_t>(iterator));
    case DBUS_TYPE_UINT16:
        return QVariant::fromValue(basicAt<dbus_uint16_t>(iterator));
    case DBUS_TYPE_INT32:
        return QVariant::fromValue(basicAt<dbus_int32_t>(iterator));
    case DBUS_TYPE_UINT32:
        return QVariant::fromValue(basicAt<dbus_uint32_t>(iterator));
    case DBUS_TYPE_INT64:
        return QVariant::fromValue(static_cast<qlonglong>(basicAt<dbus_int64_t>(iterator)));
    case DBUS_TYPE_UINT64:
        return QVariant::fromValue(static_cast<qulonglong>(basicAt<dbus_uint64_t>(iterator)));
    case DBUS_TYPE_DOUBLE:
        return QVariant(basicAt<double>(iterator));
    case DBUS_TYPE_STRING:
        return textAt(iterator);
    case DBUS_TYPE_OBJECT_PATH:
        return QVariant::fromValue(ObjectPath{textAt(iterator)});
    case DBUS_TYPE_ARRAY:
        if (libdbus().dbus_message_iter_get_element_type(iterator) == DBUS_TYPE_STRING)
            return textsAt(iterator);
        break;
    default:
        break;
    }
    return QVariant::fromValue(OpaqueValue{});
}

std::vector<QVariant> readArguments(DBusMessage *message) {
    std::vector<QVariant> arguments;
    DBusMessageIter iterator;
    if (!libdbus().dbus_message_iter_init(message, &iterator))
        return arguments;
    do
        arguments.push_back(readValue(&iterator));
    while (libdbus().dbus_message_iter_next(&iterator));
    return arguments;
}

ManagedObjectMap readManagedObjects(DBusMessage *reply) {
    ManagedObjectMap objects;
    DBusMessageIter iterator;
    if (!hasSignature(reply, "a{oa{sa{sv}}}") ||
        !libdbus().dbus_message_iter_init(reply, &iterator))
        return objects;
    forEachEntry(&iterator, [&](DBusMessageIter *path, DBusMessageIter *interfaces) {
        InterfaceMap &object = objects[textAt(path)];
        forEachEntry(interfaces, [&](DBusMessageIter *name, DBusMessageIter *properties) {
            object.insert(textAt(name), propertiesAt(properties));
        });
    });
    return objects;
}

PropertyMap readProperties(DBusMessage *reply) {
    DBusMessageIter iterator;
    if (!hasSignature(reply, "a{sv}") || !libdbus().dbus_message_iter_init(reply, &iterator))
        return {};
    return propertiesAt(&iterator);
}

QVariant readVariant(DBusMessage *reply) {
    DBusMessageIter iterator;
    if (!hasSignature(reply, "v") || !libdbus().dbus_message_iter_init(reply, &iterator))
        return {};
    return variantContentAt(&iterator);
}

} // namespace kelvane::bluez
