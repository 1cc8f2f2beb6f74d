#include "pairing/pair.h"

#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/properties.h"
#include "bluez/snapshot.h"
#include "core/trace.h"
#include "core/utf8.h"
#include "pairing/eventlog.h"
#include "pairing/registration.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusPendingCallWatcher>
#include <QEvent>
#include <QEventLoop>
#include <QThread>

namespace kelvane::pairing {

namespace trace = core::DbusTrace;
using bluez::names::device;

namespace {

constexpr int discoveryPolls = 30;

const QString notFoundDuringDiscovery = QStringLiteral(
    "device not found during discovery. Put the device in pairing/discoverable mode, keep it "
    "close to the adapter, and confirm the MAC with -e.");
const QString pageTimeoutAdvice =
    QStringLiteral("Page Timeout: device not responding. Ensure it is powered on, in range, and "
                   "in pairing/discoverable mode, then try again.");

QString deviceNotFound(const QString &devicePath) {
    return QStringLiteral("device not found: %1").arg(devicePath);
}

// BlueZ reports a device that did not answer the page as "Page Timeout";
// such a device is usually stale in BlueZ's cache and worth a fresh start.
bool isPageTimeout(const QString &message) {
    return message.contains(QLatin1String("Page Timeout"), Qt::CaseInsensitive);
}

QDBusInterface deviceProxy(const QString &devicePath) {
    return QDBusInterface(bluez::names::service, devicePath, device, QDBusConnection::systemBus());
}

bool readBool(QDBusInterface &proxy, const char *property) {
    return bluez::readProxyProperty(proxy, property).toBool();
}

// First powered adapter in path order, else the first adapter at all.
QString chooseAdapter(const bluez::ManagedObjectMap &objects) {
    for (const bool requirePowered : {true, false}) {
        for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
            const bluez::PropertyMap properties = it.value().value(bluez::names::adapter);
            if (properties.isEmpty())
                continue;
            if (!requirePowered || properties.value(QStringLiteral("Powered")).toBool())
                return it.key().path();
        }
    }
    return QString();
}

// Best effort: a non-pairable adapter makes Pair fail with a clear error of its own.
void ensurePairable(const QString &adapterPath) {
    QDBusInterface adapter(bluez::names::service, adapterPath, bluez::names::adapter,
                           QDBusConnection::systemBus());
    if (bluez::proxyFound(adapter) && !readBool(adapter, "Pairable"))
        bluez::setPropertyTrue(adapterPath, bluez::names::adapter, QStringLiteral("Pairable"));
}

// Up to discoveryPolls one-second polls; the object path found, or empty.
QString discoverDevice(const QString &adapterPath, const QString &address) {
    QString ignored;
    if (!bluez::startDiscovery(adapterPath, ignored))
        return QString();
    QString found;
    for (int poll = 0; poll < discoveryPolls && found.isEmpty(); ++poll) {
        QThread::sleep(1);
        found = bluez::findDevicePathByAddress(bluez::loadManagedObjects(), address);
    }
    bluez::stopDiscovery(adapterPath);
    return found;
}

// Pair is the one asynchronous call: BlueZ calls back into the agent while it
// is pending, and those callbacks are only served while an event loop runs.
// The loop ends with the reply, or with the error the bus produces when the
// reply timeout passes or BlueZ leaves the bus.
bool pairDeviceAsync(QDBusInterface &proxy, const QString &devicePath, QString &message) {
    const QString method = QStringLiteral("Pair");
    proxy.setTimeout(-1);
    trace::call(bluez::names::service, devicePath, device, method, QString());
    QEventLoop loop;
    bool paired = false;
    auto *watcher = new QDBusPendingCallWatcher(proxy.asyncCall(method));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &loop,
                     [&](QDBusPendingCallWatcher *finished) {
                         if (finished->isError()) {
                             message = finished->error().message();
                             trace::reply(method, false, message);
                         } else {
                             paired = true;
                             trace::reply(method, true, QString());
                         }
                         finished->deleteLater();
                         loop.quit();
                     });
    loop.exec();
    // No outer loop will ever run to honour the deleteLater.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return paired;
}

class PairProcedure {
public:
    explicit PairProcedure(const QString &typedAddress)
        : m_typedAddress(typedAddress), m_address(bluez::normalizeAddress(typedAddress)) {}

    // False with `m_message` set when a step failed.
    bool run() {
        trace::debug("pairing with address " + m_typedAddress.toUtf8());
        QString snapshotError;
        const bluez::ManagedObjectMap objects = bluez::loadManagedObjects(&snapshotError);
        if (objects.isEmpty() && !snapshotError.isEmpty())
            return fail(snapshotError);
        if (!prepareAdapter(objects))
            return false;
        m_devicePath = bluez::findDevicePathByAddress(objects, m_address);
        trace::debug("initial device path: " +
                     (m_devicePath.isEmpty() ? QByteArray("(not found)") : m_devicePath.toUtf8()));
        return pairWithRetry() && trustDevice() && connectDevice();
    }

    const QString &message() const { return m_message; }

private:
    bool fail(const QString &message) {
        m_message = message;
        return false;
    }

    bool prepareAdapter(const bluez::ManagedObjectMap &objects) {
        m_adapterPath = chooseAdapter(objects);
        if (m_adapterPath.isEmpty())
            return fail(QStringLiteral("no Bluetooth adapter found"));
        trace::debug("using adapter " + m_adapterPath.toUtf8());
        if (!bluez::ensureAdapterPowered(m_adapterPath, m_message))
            return false;
        ensurePairable(m_adapterPath);
        return true;
    }

    // At most two attempts; only a "Page Timeout" earns the second, after the
    // stale device has been removed and discovered afresh.
    bool pairWithRetry() {
        for (int attempt = 1;; ++attempt) {
            trace::debug("pair attempt " + QByteArray::number(attempt));
            if (m_devicePath.isEmpty()) {
                m_devicePath = discoverDevice(m_adapterPath, m_address);
                if (m_devicePath.isEmpty())
                    return fail(notFoundDuringDiscovery);
            }
            if (pairOnce())
                return true;
            if (!isPageTimeout(m_message))
                return false;
            bluez::removeDevice(m_adapterPath, m_devicePath);
            m_devicePath.clear();
            if (attempt == 2)
                return fail(pageTimeoutAdvice);
        }
    }

    bool pairOnce() {
        refreshEventDevice(m_devicePath);
        QDBusInterface proxy = deviceProxy(m_devicePath);
        if (!bluez::proxyFound(proxy))
            return fail(deviceNotFound(m_devicePath));
        if (readBool(proxy, "Paired")) {
            trace::debug("device already paired: " + m_devicePath.toUtf8());
            return true;
        }
        return pairDeviceAsync(proxy, m_devicePath, m_message);
    }

    bool trustDevice() {
        QDBusInterface proxy = deviceProxy(m_devicePath);
        if (!bluez::proxyFound(proxy))
            return fail(deviceNotFound(m_devicePath));
        if (!readBool(proxy, "Trusted") &&
            !bluez::setPropertyTrue(m_devicePath, device, QStringLiteral("Trusted"), &m_message))
            return false;
        refreshEventDevice(m_devicePath);
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        return true;
    }

    bool connectDevice() {
        QDBusInterface proxy = deviceProxy(m_devicePath);
        if (!bluez::proxyFound(proxy))
            return fail(deviceNotFound(m_devicePath));
        if (!readBool(proxy, "Connected")) {
            const QString method = QStringLiteral("Connect");
            trace::call(bluez::names::service, m_devicePath, device, method, QString());
            const QDBusMessage reply = proxy.call(QDBus::Block, method);
            if (reply.type() == QDBusMessage::ErrorMessage) {
                trace::reply(method, false, reply.errorMessage());
                return fail(reply.errorMessage());
            }
            trace::reply(method, true, QString());
        }
        refreshEventDevice(m_devicePath);
        PairingEventLog::logEvent(QStringLiteral("connected"));
        return true;
    }

    const QString m_typedAddress;
    const QString m_address;
    QString m_adapterPath;
    QString m_devicePath;
    QString m_message;
};

} // namespace

core::Status pairTrustConnect(const std::string &address) {
    const QString typed = core::fromUtf8(address);
    if (!bluez::isValidAddress(bluez::normalizeAddress(typed)))
        return core::failure(QStringLiteral("invalid Bluetooth address: ") + typed);
    // Declared first so that it is destroyed last: the agent is withdrawn
    // after every other step, on every way out.
    AgentRegistration registration;
    registerPairingAgent(registration);
    PairingEventLog::reset();
    PairProcedure procedure(typed);
    if (!procedure.run())
        return core::failure(procedure.message());
    return {};
}

} // namespace kelvane::pairing
