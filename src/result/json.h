#pragma once

#include "result/resultdocument.h"

#include <QByteArray>
#include <QString>

#include <optional>

// Every JSON member name the tool writes is in json.cpp. The JSON is written
// directly, compact, members in ascending key order, strings escaped as
// QJsonDocument escapes them: thousands of devices cost a fraction of what
// building QJsonObjects would.
namespace kelvane::result {

QByteArray deviceToJson(const DeviceInfo &device);
QByteArray adapterToJson(const AdapterInfo &adapter);

// One event of the pairing event file; "device" and "passkey" only when given.
QByteArray eventToJson(const QString &event, qint64 timestamp,
                       const std::optional<DeviceInfo> &device, const QString &passkey);

// The event file's content: the array of events and a newline.
QByteArray eventsToJson(const std::vector<QByteArray> &events);

QByteArray resultToJson(const ResultDocument &document);

// The only writer of standard output besides the usage text.
void writeResultLine(const QByteArray &json);

} // namespace kelvane::result
