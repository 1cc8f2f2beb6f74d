#include "result/json.h"

#include "classify/appearance.h"
#include "classify/classofdevice.h"
#include "classify/hid.h"
#include "classify/label.h"

#include <cstdio>

namespace kelvane::result {

namespace {

// A JSON string of UTF-8 text: '"', '\\' and the control characters escaped,
// everything else as it is.
void appendString(QByteArray &out, const char *text, size_t size) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') {
            out += static_cast<char>(c);
            continue;
        }
        out += '\\';
        switch (c) {
        case '"':
        case '\\':
            out += static_cast<char>(c);
            break;
        case '\b':
            out += 'b';
            break;
        case '\f':
            out += 'f';
            break;
        case '\n':
            out += 'n';
            break;
        case '\r':
            out += 'r';
            break;
        case '\t':
            out += 't';
            break;
        default:
            out += "u00";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    out += '"';
}

void appendString(QByteArray &out, const std::string &text) {
    appendString(out, text.data(), text.size());
}

void appendString(QByteArray &out, const QByteArray &text) {
    appendString(out, text.constData(), static_cast<size_t>(text.size()));
}

void appendString(QByteArray &out, const QString &text) {
    appendString(out, text.toUtf8());
}

template <typename T> void appendNumber(QByteArray &out, const std::optional<T> &value) {
    out += value ? QByteArray::number(static_cast<qint64>(*value)) : QByteArray("null");
}

void appendBool(QByteArray &out, bool value) {
    out += value ? "true" : "false";
}

// One object being written: members come in the order they are named, which
// every caller keeps ascending by key.
class Members {
public:
    explicit Members(QByteArray &out) : m_out(out) { m_out += '{'; }
    Members(const Members &) = delete;
    Members &operator=(const Members &) = delete;
    ~Members() { m_out += '}'; }

    QByteArray &key(const char *name) {
        m_out += m_first ? "\"" : ",\"";
        m_first = false;
        m_out += name;
        m_out += "\":";
        return m_out;
    }

private:
    QByteArray &m_out;
    bool m_first = true;
};

template <typename Items, typename Write>
void appendArray(QByteArray &out, const Items &items, Write write) {
    out += '[';
    bool first = true;
    for (const auto &item : items) {
        if (!first)
            out += ',';
        first = false;
        write(out, item);
    }
    out += ']';
}

void appendDevice(QByteArray &out, const DeviceInfo &device) {
    Members object(out);
    appendString(object.key("address"), device.address);
    appendString(object.key("alias"), device.alias);
    appendNumber(object.key("appearance"), device.appearance);
    // Null without an appearance; "" for one that has no name.
    QByteArray &description = object.key("appearance_description");
    if (device.appearance)
        appendString(description, classify::appearanceDescription(*device.appearance));
    else
        description += "null";
    // "class" is the text of "class_of_device"; both are null without a class.
    QByteArray &classText = object.key("class");
    if (device.classOfDevice)
        appendString(classText, classify::describeClassOfDevice(
                                    classify::ClassOfDevice(*device.classOfDevice)));
    else
        classText += "null";
    appendNumber(object.key("class_of_device"), device.classOfDevice);
    appendBool(object.key("connected"), device.connected);
    appendString(object.key("icon"), device.icon);
    appendString(object.key("icon-name"), classify::iconNameForAppearance(device.appearance));
    appendBool(object.key("is_hid"),
               classify::isHidDevice(device.appearance, device.uuids, device.classOfDevice));
    appendString(object.key("label"), classify::displayLabel(device.name, device.alias));
    appendString(object.key("name"), device.name);
    appendBool(object.key("paired"), device.paired);
    appendString(object.key("path"), device.path);
    appendNumber(object.key("rssi"), device.rssi);
    appendBool(object.key("trusted"), device.trusted);
    appendArray(object.key("uuids"), device.uuids,
                [](QByteArray &to, const std::string &uuid) { appendString(to, uuid); });
}

void appendAdapter(QByteArray &out, const AdapterInfo &adapter) {
    Members object(out);
    appendString(object.key("address"), adapter.address);
    appendString(object.key("alias"), adapter.alias);
    appendBool(object.key("discovering"), adapter.discovering);
    object.key("id") += QByteArray::number(adapter.id);
    appendString(object.key("name"), adapter.name);
    appendString(object.key("path"), adapter.path);
    appendBool(object.key("powered"), adapter.powered);
}

} // namespace

QByteArray deviceToJson(const DeviceInfo &device) {
    QByteArray out;
    appendDevice(out, device);
    return out;
}

QByteArray adapterToJson(const AdapterInfo &adapter) {
    QByteArray out;
    appendAdapter(out, adapter);
    return out;
}

QByteArray eventToJson(const QString &event, qint64 timestamp,
                       const std::optional<DeviceInfo> &device, const QString &passkey) {
    QByteArray out;
    {
        Members object(out);
        if (device)
            appendDevice(object.key("device"), *device);
        appendString(object.key("event"), event);
        if (!passkey.isEmpty())
            appendString(object.key("passkey"), passkey);
        object.key("timestamp") += QByteArray::number(timestamp);
    }
    return out;
}

QByteArray eventsToJson(const std::vector<QByteArray> &events) {
    QByteArray out;
    appendArray(out, events, [](QByteArray &to, const QByteArray &event) { to += event; });
    out += '\n';
    return out;
}

QByteArray resultToJson(const ResultDocument &document) {
    QByteArray out;
    out.reserve(static_cast<int>(256 + 700 * document.devices().size()));
    {
        Members object(out);
        appendArray(object.key("adapters"), document.adapters(), appendAdapter);
        appendArray(object.key("devices"), document.devices(), appendDevice);
        appendString(object.key("error"), document.error());
        appendString(object.key("result"),
                     QByteArray(document.status() == ResultStatus::Error ? "error" : "ok"));
    }
    return out;
}

void writeResultLine(const QByteArray &json) {
    std::fwrite(json.constData(), 1, static_cast<size_t>(json.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace kelvane::result
