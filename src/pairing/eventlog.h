#pragma once

#include "core/records.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

namespace kelvane::pairing {

// The pairing progress file for an outside reader: a JSON array of every
// event of this run, rewritten whole after each event. Process-wide; one
// mutex guards the list, the current device and the file writing.
class PairingEventLog {
public:
    PairingEventLog() = delete;

    static inline const QString defaultFilePath = QStringLiteral("/tmp/kelvane-events.json");

    // Forgets all events and the device and replaces the file with "[]".
    static void reset();
    // Removes what a killed run left beside the file.
    static void removeLeftovers();
    // Every later event carries this device.
    static void setDevice(const core::DeviceInfo &device);
    // Appends {"event", "timestamp", ["device"], extra...} and rewrites the
    // file. The log's own members win over equally named extra fields.
    static void logEvent(const QString &name, const QJsonObject &extra = QJsonObject());

    // The events logged so far, in order.
    static QJsonArray events();
    // Tests point the file elsewhere; the tool always uses defaultFilePath.
    static void setFilePath(const QString &path);

private:
    // Caller holds the lock.
    static void writeFile();
};

// Stores the device's current BlueZ properties as the log's device; leaves
// the device unchanged when BlueZ does not know the path.
void refreshEventDevice(const QString &devicePath);

} // namespace kelvane::pairing
