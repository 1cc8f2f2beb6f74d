#include "result/json.h"

#include "classify/appearance.h"
#include "classify/classofdevice.h"
#include "classify/hid.h"
#include "classify/label.h"
#include "core/utf8.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QString>

#include <cstdio>

namespace kelvane::result {

using core::fromUtf8;

namespace {

const QJsonValue null(QJsonValue::Null);

template <typename T> QJsonValue optionalNumber(const std::optional<T> &value) {
    return value ? QJsonValue(static_cast<qint64>(*value)) : null;
}

// "class" is the text of "class_of_device"; both are null without a class.
QJsonValue classText(const std::optional<std::uint32_t> &classOfDevice) {
    if (!classOfDevice)
        return null;
    return QString::fromUtf8(
        classify::describeClassOfDevice(classify::ClassOfDevice(*classOfDevice)));
}

// Null without an appearance; "" for one that has no name.
QJsonValue appearanceText(const std::optional<std::uint16_t> &appearance) {
    if (!appearance)
        return null;
    const QString description = classify::appearanceDescription(*appearance);
    return description.isNull() ? QStringLiteral("") : description;
}

QJsonArray uuidArray(const std::vector<std::string> &uuids) {
    QJsonArray array;
    for (const std::string &uuid : uuids)
        array.append(fromUtf8(uuid));
    return array;
}

} // namespace

QJsonObject deviceToJson(const DeviceInfo &device) {
    QJsonObject object;
    object.insert(QStringLiteral("path"), fromUtf8(device.path));
    object.insert(QStringLiteral("address"), fromUtf8(device.address));
    object.insert(QStringLiteral("name"), fromUtf8(device.name));
    object.insert(QStringLiteral("alias"), fromUtf8(device.alias));
    object.insert(QStringLiteral("label"),
                  classify::displayLabel(fromUtf8(device.name), fromUtf8(device.alias)));
    object.insert(QStringLiteral("icon"), fromUtf8(device.icon));
    object.insert(QStringLiteral("class_of_device"), optionalNumber(device.classOfDevice));
    object.insert(QStringLiteral("class"), classText(device.classOfDevice));
    object.insert(QStringLiteral("icon-name"), classify::iconNameForAppearance(device.appearance));
    object.insert(QStringLiteral("appearance"), optionalNumber(device.appearance));
    object.insert(QStringLiteral("appearance_description"), appearanceText(device.appearance));
    object.insert(QStringLiteral("rssi"), optionalNumber(device.rssi));
    object.insert(QStringLiteral("paired"), device.paired);
    object.insert(QStringLiteral("trusted"), device.trusted);
    object.insert(QStringLiteral("connected"), device.connected);
    object.insert(QStringLiteral("is_hid"),
                  classify::isHidDevice(device.appearance, device.uuids, device.classOfDevice));
    object.insert(QStringLiteral("uuids"), uuidArray(device.uuids));
    return object;
}

QJsonObject adapterToJson(const AdapterInfo &adapter) {
    QJsonObject object;
    object.insert(QStringLiteral("id"), static_cast<qint64>(adapter.id));
    object.insert(QStringLiteral("path"), fromUtf8(adapter.path));
    object.insert(QStringLiteral("address"), fromUtf8(adapter.address));
    object.insert(QStringLiteral("name"), fromUtf8(adapter.name));
    object.insert(QStringLiteral("alias"), fromUtf8(adapter.alias));
    object.insert(QStringLiteral("powered"), adapter.powered);
    object.insert(QStringLiteral("discovering"), adapter.discovering);
    return object;
}

QJsonObject eventToJson(const QString &event, qint64 timestamp,
                        const std::optional<DeviceInfo> &device, const QString &passkey) {
    QJsonObject object;
    object.insert(QStringLiteral("event"), event);
    object.insert(QStringLiteral("timestamp"), timestamp);
    if (device)
        object.insert(QStringLiteral("device"), deviceToJson(*device));
    if (!passkey.isEmpty())
        object.insert(QStringLiteral("passkey"), passkey);
    return object;
}

QByteArray resultToJson(const ResultDocument &document) {
    QJsonArray adapters;
    for (const AdapterInfo &adapter : document.adapters())
        adapters.append(adapterToJson(adapter));
    QJsonArray devices;
    for (const DeviceInfo &device : document.devices())
        devices.append(deviceToJson(device));

    QJsonObject object;
    object.insert(QStringLiteral("result"), document.status() == ResultStatus::Error
                                                ? QStringLiteral("error")
                                                : QStringLiteral("ok"));
    object.insert(QStringLiteral("error"), fromUtf8(document.error()));
    object.insert(QStringLiteral("adapters"), adapters);
    object.insert(QStringLiteral("devices"), devices);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void writeResultLine(const QByteArray &json) {
    std::fwrite(json.constData(), 1, static_cast<size_t>(json.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace kelvane::result
