#pragma once

#include "result/resultdocument.h"

#include <QByteArray>
#include <QJsonObject>

#include <string>

namespace kelvane::result {

QJsonObject deviceToJson(const DeviceInfo &device);
QJsonObject adapterToJson(const AdapterInfo &adapter);

// Compact JSON; QJsonObject keeps members in ascending key order.
QByteArray resultToJson(const ResultDocument &document);

// The only writer of standard output besides the usage text.
void writeResultLine(const QByteArray &json);

} // namespace kelvane::result
