#pragma once

#include "bluez/objectmap.h"
#include "core/records.h"

#include <QString>

namespace kelvane::pairing {

// The pairing progress file for an outside reader: a JSON array of every
// event of this run, replaced whole after each event. Process-wide.
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
    // Appends {"event", "timestamp", ["device"], ["passkey"]} and rewrites
    // the file.
    static void logEvent(const QString &name, const QString &passkey = QString());

    // Tests point the file elsewhere; the tool always uses defaultFilePath.
    static void setFilePath(const QString &path);

private:
    static void writeFile();
};

// Takes a fresh snapshot and stores the device's properties there as the
// log's device; leaves the device unchanged when BlueZ does not know the
// path. Returns the properties it found (empty when none).
bluez::PropertyMap refreshEventDevice(const QString &devicePath);

} // namespace kelvane::pairing
