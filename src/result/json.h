#pragma once

#include "result/resultdocument.h"

#include <QByteArray>
#include <QJsonObject>

#include <optional>

namespace kelvane::result {

QJsonObject deviceToJson(const DeviceInfo &device);
QJsonObject adapterToJson(const AdapterInfo &adapter);

// One event of the pairing event file; "device" and "passkey" only when given.
QJsonObject eventToJson(const QString &event, qint64 timestamp,
                        const std::optional<DeviceInfo> &device, const QString &passkey);

// Compact JSON; QJsonObject keeps members in ascending key order.
QByteArray resultToJson(const ResultDocument &document);

// The only writer of standard output besides the usage text.
void writeResultLine(const QByteArray &json);

} // namespace kelvane::result
