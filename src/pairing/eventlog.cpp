#include "pairing/eventlog.h"

#include "bluez/devices.h"
#include "bluez/names.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "result/json.h"
#include "storage/atomicfile.h"

#include <QDateTime>
#include <QFileInfo>

#include <optional>
#include <vector>

namespace kelvane::pairing {

namespace {

struct LogState {
    std::vector<QByteArray> events; // each event's JSON
    std::optional<core::DeviceInfo> device;
    QString filePath = PairingEventLog::defaultFilePath;
};

LogState &state() {
    static LogState instance;
    return instance;
}

} // namespace

void PairingEventLog::reset() {
    state().events.clear();
    state().device.reset();
    writeFile();
}

void PairingEventLog::setDevice(const core::DeviceInfo &device) {
    state().device = device;
}

void PairingEventLog::logEvent(const QString &name, const QString &passkey) {
    const qint64 timestamp = QDateTime::currentDateTimeUtc().toSecsSinceEpoch();
    state().events.push_back(result::eventToJson(name, timestamp, state().device, passkey));
    writeFile();
}

void PairingEventLog::setFilePath(const QString &path) {
    state().filePath = path;
}

// An unwritable file must not disturb the pairing; the next event rewrites
// the complete list anyway.
void PairingEventLog::writeFile() {
    const QFileInfo file(state().filePath);
    // Written beside and renamed over the old one, so a reader always sees a
    // whole array, and whatever another user left at the name is replaced,
    // never opened.
    (void)storage::replaceFile(file.path(), file.fileName(), result::eventsToJson(state().events),
                               0644);
}

void PairingEventLog::removeLeftovers() {
    const QFileInfo file(state().filePath);
    storage::removeStaleTemporaries(file.path(), file.fileName());
}

bluez::PropertyMap refreshEventDevice(const QString &devicePath) {
    const auto objects = bluez::loadManagedObjects();
    if (!objects)
        return {};
    const bluez::PropertyMap properties =
        bluez::interfaceProperties(*objects, devicePath, bluez::names::device);
    if (!properties.isEmpty())
        PairingEventLog::setDevice(bluez::deviceFromProperties(devicePath, properties));
    return properties;
}

} // namespace kelvane::pairing
