#include "pairing/eventlog.h"

#include "bluez/devices.h"
#include "bluez/names.h"
#include "bluez/snapshot.h"
#include "result/json.h"
#include "storage/atomicfile.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>

#include <mutex>
#include <optional>

namespace kelvane::pairing {

namespace {

struct LogState {
    std::mutex mutex;
    QJsonArray events;
    std::optional<core::DeviceInfo> device;
    QString filePath = PairingEventLog::defaultFilePath;
};

LogState &state() {
    static LogState instance;
    return instance;
}

} // namespace

void PairingEventLog::reset() {
    LogState &log = state();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.events = QJsonArray();
    log.device.reset();
    writeFile();
}

void PairingEventLog::setDevice(const core::DeviceInfo &device) {
    LogState &log = state();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.device = device;
}

void PairingEventLog::logEvent(const QString &name, const QJsonObject &extra) {
    LogState &log = state();
    // The JSON is built outside the lock; only the shared state is touched under it.
    QJsonObject event = extra;
    event.insert(QStringLiteral("event"), name);
    event.insert(QStringLiteral("timestamp"), QDateTime::currentDateTimeUtc().toSecsSinceEpoch());
    std::optional<core::DeviceInfo> device;
    {
        std::lock_guard<std::mutex> lock(log.mutex);
        device = log.device;
    }
    if (device)
        event.insert(QStringLiteral("device"), result::deviceToJson(*device));
    std::lock_guard<std::mutex> lock(log.mutex);
    log.events.append(event);
    writeFile();
}

QJsonArray PairingEventLog::events() {
    LogState &log = state();
    std::lock_guard<std::mutex> lock(log.mutex);
    return log.events;
}

void PairingEventLog::setFilePath(const QString &path) {
    LogState &log = state();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.filePath = path;
}

void PairingEventLog::writeFile() {
    LogState &log = state();
    const QFileInfo file(log.filePath);
    // Written beside and renamed over the old one, so a reader always sees a
    // whole array; an unwritable file must not disturb the pairing, and the
    // next event rewrites the complete list anyway.
    (void)storage::replaceFile(file.path(), file.fileName(),
                               QJsonDocument(log.events).toJson(QJsonDocument::Compact) + '\n',
                               0644);
}

void PairingEventLog::removeLeftovers() {
    const QFileInfo file(state().filePath);
    storage::removeStaleTemporaries(file.path(), file.fileName());
}

void refreshEventDevice(const QString &devicePath) {
    const bluez::ManagedObjectMap objects = bluez::loadManagedObjects();
    const bluez::PropertyMap properties =
        bluez::interfaceProperties(objects, devicePath, bluez::names::device);
    if (!properties.isEmpty())
        PairingEventLog::setDevice(bluez::deviceFromProperties(devicePath, properties));
}

} // namespace kelvane::pairing
