#include "pairing/pair.h"

#include "bluez/adapters.h"
#include "bluez/address.h"
#include "bluez/call.h"
#include "bluez/devices.h"
#include "bluez/discovery.h"
#include "bluez/names.h"
#include "bluez/properties.h"
#include "bluez/queries.h"
#include "bluez/snapshot.h"
#include "core/trace.h"
#include "core/utf8.h"
#include "pairing/agentpolicy.h"
#include "pairing/eventlog.h"
#include "pairing/registration.h"

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

core::Error deviceNotFound(const QString &devicePath) {
    return core::failure(QStringLiteral("device not found: %1").arg(devicePath));
}

// Up to discoveryPolls one-second polls; the object path found, or empty.
QString discoverDevice(const QString &adapterPath, const QString &address) {
    if (!bluez::startDiscovery(adapterPath))
        return QString();
    QString found;
    for (int poll = 0; poll < discoveryPolls && found.isEmpty(); ++poll) {
        QThread::sleep(1);
        if (const auto objects = bluez::loadManagedObjects())
            found = bluez::findDevicePathByAddress(*objects, address);
    }
    bluez::stopDiscovery(adapterPath);
    return found;
}

// Pair is the one call that waits ServingAgent: BlueZ calls back into the
// agent while it is pending.
core::Status pairDevice(const QString &devicePath) {
    bluez::MethodCall call{devicePath, device, QStringLiteral("Pair")};
    call.waiting = bluez::Waiting::ServingAgent;
    return bluez::statusOf(bluez::callBluez(call));
}

// False when BlueZ has no such device; the value read as a boolean otherwise.
core::Expected<bool> deviceFlag(const QString &devicePath, const char *property) {
    const auto value = bluez::readProperty(devicePath, device, QLatin1String(property));
    if (!value)
        return deviceNotFound(devicePath);
    return value->toBool();
}

class PairProcedure {
public:
    PairProcedure(AgentPolicy &policy, const QString &address)
        : m_policy(policy), m_address(address) {}

    core::Status run() {
        const auto objects = bluez::loadManagedObjects();
        if (!objects)
            return objects.error();
        if (const core::Status prepared = prepareAdapter(*objects); !prepared)
            return prepared;
        m_devicePath = bluez::findDevicePathByAddress(*objects, m_address);
        trace::debug("initial device path: " +
                     (m_devicePath.isEmpty() ? QByteArray("(not found)") : m_devicePath.toUtf8()));
        if (const core::Status paired = pairWithRetry(); !paired)
            return paired;
        if (const core::Status trusted = trustDevice(); !trusted)
            return trusted;
        return connectDevice();
    }

private:
    core::Status prepareAdapter(const bluez::ManagedObjectMap &objects) {
        m_adapterPath = bluez::firstPoweredAdapter(objects);
        if (m_adapterPath.isEmpty())
            return core::failure(QStringLiteral("no Bluetooth adapter found"));
        trace::debug("using adapter " + m_adapterPath.toUtf8());
        const bluez::PropertyMap adapter =
            bluez::interfaceProperties(objects, m_adapterPath, bluez::names::adapter);
        const core::Status powered =
            bluez::ensureAdapterPowered(bluez::adapterFromProperties(m_adapterPath, adapter));
        if (!powered)
            return powered;
        // Best effort: a non-pairable adapter makes Pair fail with a clear error of its own.
        if (!adapter.value(QStringLiteral("Pairable")).toBool())
            (void)bluez::setPropertyTrue(m_adapterPath, bluez::names::adapter,
                                         QStringLiteral("Pairable"));
        return {};
    }

    // At most two attempts; only a "Page Timeout" earns the second, after the
    // stale device has been removed and discovered afresh.
    core::Status pairWithRetry() {
        for (int attempt = 1;; ++attempt) {
            trace::debug("pair attempt " + QByteArray::number(attempt));
            if (m_devicePath.isEmpty()) {
                m_devicePath = discoverDevice(m_adapterPath, m_address);
                if (m_devicePath.isEmpty())
                    return core::failure(notFoundDuringDiscovery);
            }
            const core::Status paired = pairOnce();
            if (paired || !bluez::isPageTimeout(paired.error()))
                return paired;
            (void)bluez::removeDevice(m_adapterPath, m_devicePath);
            m_devicePath.clear();
            if (attempt == 2)
                return core::failure(pageTimeoutAdvice);
        }
    }

    // The snapshot that refreshes the event's device also says whether the
    // device is there and paired already.
    core::Status pairOnce() {
        const bluez::PropertyMap properties = refreshEventDevice(m_devicePath);
        if (properties.isEmpty())
            return deviceNotFound(m_devicePath);
        if (properties.value(QStringLiteral("Paired")).toBool()) {
            trace::debug("device already paired: " + m_devicePath.toUtf8());
            return {};
        }
        m_policy.expectDevice(m_devicePath);
        return pairDevice(m_devicePath);
    }

    core::Status trustDevice() {
        const auto trusted = deviceFlag(m_devicePath, "Trusted");
        if (!trusted)
            return trusted.error();
        if (!*trusted) {
            const core::Status set =
                bluez::setPropertyTrue(m_devicePath, device, QStringLiteral("Trusted"));
            if (!set)
                return set;
        }
        refreshEventDevice(m_devicePath);
        PairingEventLog::logEvent(QStringLiteral("trusted"));
        return {};
    }

    core::Status connectDevice() {
        const auto connected = deviceFlag(m_devicePath, "Connected");
        if (!connected)
            return connected.error();
        if (!*connected) {
            const core::Status done = bluez::statusOf(
                bluez::callBluez({m_devicePath, device, QStringLiteral("Connect")}));
            if (!done)
                return done;
        }
        refreshEventDevice(m_devicePath);
        PairingEventLog::logEvent(QStringLiteral("connected"));
        return {};
    }

    AgentPolicy &m_policy;
    const QString m_address;
    QString m_adapterPath;
    QString m_devicePath;
};

} // namespace

core::Expected<QString> pairAddress(const std::string &typedAddress) {
    const QString typed = core::fromUtf8(typedAddress);
    const QString normalized = bluez::normalizeAddress(typed);
    if (!bluez::isValidAddress(normalized))
        return core::failure(QStringLiteral("invalid Bluetooth address: ") + typed);
    return normalized;
}

core::Status pairTrustConnect(const std::string &address) {
    const core::Expected<QString> checked = pairAddress(address);
    if (!checked)
        return checked.error();
    const QString &normalized = *checked;
    const QString typed = core::fromUtf8(address);
    // Reset first: a reader must never take the last run's passkey for this one's.
    PairingEventLog::reset();
    PairingEventLog::removeLeftovers();
    // Declared in this order so that the agent is withdrawn after every other
    // step, on every way out, and its policy outlives it.
    AgentPolicy policy;
    AgentRegistration registration;
    registerPairingAgent(registration, policy);
    trace::debug("pairing with address " + typed.toUtf8());
    return PairProcedure(policy, normalized).run();
}

} // namespace kelvane::pairing
