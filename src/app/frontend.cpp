#include "app/frontend.h"

#include "app/commandline.h"
#include "bluez/adapters.h"
#include "bluez/address.h"
#include "core/trace.h"
#include "core/utf8.h"
#include "operations/forget.h"
#include "operations/knowndevices.h"
#include "operations/scan.h"
#include "pairing/pair.h"
#include "result/json.h"
#include "storage/backup.h"
#include "storage/forgetstored.h"
#include "storage/lock.h"
#include "storage/paths.h"

#include <QCoreApplication>

#include <cstdio>
#include <unistd.h>

namespace kelvane::app {

namespace {

using result::simpleResult;
using result::writeResultLine;

void writeError(const std::string &text) {
    const std::string line = "error: " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

int printSimpleResult(bool success, const std::string &message) {
    writeResultLine(simpleResult(success, message));
    return success ? 0 : 1;
}

// One run at a time changes the store, its backup and the event file; what
// a killed run left half done is settled before anything else reads them.
template <typename Operation> int underStoreLock(Operation operation) {
    const core::Expected<storage::StoreLock> lock =
        storage::lockStore(storage::lockFile, storage::lockWaitBound);
    if (!lock)
        return printSimpleResult(false, core::toUtf8(lock.error().message));
    storage::recoverInterruptedCopies();
    return operation();
}

int runRestore() {
    return underStoreLock([] {
        const core::Status restored = storage::restoreBackup();
        return printSimpleResult(restored.ok(),
                                 restored ? std::string() : core::toUtf8(restored.error().message));
    });
}

int invalidAddress(const std::string &typed) {
    return printSimpleResult(false, "invalid Bluetooth address: " + typed);
}

// The address is read once: trimmed and normalised, the same form goes to
// BlueZ and to the store, and a word that is no address deletes nothing.
int runForget(const std::string &mac) {
    const QString address = bluez::normalizeAddress(core::fromUtf8(mac).trimmed());
    if (!bluez::isValidAddress(address))
        return invalidAddress(mac);
    return underStoreLock([&] {
        std::string error;
        if (operations::forgetDevice(error, core::toUtf8(address)) ||
            storage::forgetStoredDevice(address, nullptr, storage::storeRoot)) {
            saveBluetoothConfig();
            return printSimpleResult(true, std::string());
        }
        return printSimpleResult(false, error.empty() ? std::string("device not found") : error);
    });
}

constexpr int scanSeconds = 10;

std::string adapterReport(const core::AdapterInfo &adapter, const std::string &error) {
    return "adapter " + std::to_string(adapter.id) + ": " + error;
}

int runScan() {
    result::ResultDocument document;
    std::string error;
    const std::vector<core::AdapterInfo> adapters = bluez::listAdapters(error);
    if (adapters.empty()) {
        document.setStatus(result::ResultStatus::Error);
        document.setError(error);
        writeResultLine(result::resultToJson(document));
        return 1;
    }
    document.setAdapters(adapters);
    for (const core::AdapterInfo &adapter : adapters) {
        const std::vector<core::DeviceInfo> devices =
            operations::scanAdapter(adapter.path, error, scanSeconds);
        if (devices.empty() && !error.empty()) {
            document.setStatus(result::ResultStatus::Partial);
            document.setError(document.error().empty()
                                  ? adapterReport(adapter, error)
                                  : document.error() + "; " + adapterReport(adapter, error));
            continue;
        }
        document.mergeDevices(devices);
    }
    writeResultLine(result::resultToJson(document));
    return document.status() == result::ResultStatus::Error ? 1 : 0;
}

// Unlike forget, the result line comes before the backup: the caller learns
// the outcome without waiting for the copy.
int runPair(const std::string &mac) {
    // Checked before waiting for the lock: a typo need not wait for another run.
    if (!bluez::isValidAddress(bluez::normalizeAddress(core::fromUtf8(mac))))
        return invalidAddress(mac);
    return underStoreLock([&] {
        std::string error;
        if (!pairing::pairTrustConnect(mac, error))
            return printSimpleResult(false, error);
        printSimpleResult(true, std::string());
        saveBluetoothConfig();
        return 0;
    });
}

// Qt's own warnings (a daemon sending odd types, say) must never reach the
// caller's stderr unasked: they become debug lines of the -v trace.
void routeQtMessages(QtMsgType, const QMessageLogContext &, const QString &message) {
    core::DbusTrace::debug("qt: " + message.toUtf8());
}

int dispatch(const ParsedCommandLine &parsed, const std::string &invocationName) {
    switch (parsed.command) {
    case Command::Usage:
        printUsage(invocationName);
        return 0;
    case Command::Unknown:
        writeError("unknown option: " + parsed.word);
        printUsage(invocationName);
        return 1;
    default:
        break;
    }
    if (commandNeedsMac(parsed.command) && !parsed.mac) {
        writeError(parsed.word + " requires a Bluetooth MAC address");
        printUsage(invocationName);
        return 1;
    }
    if (commandNeedsRoot(parsed.command) && !requireRoot(parsed.word))
        return 1;
    switch (parsed.command) {
    case Command::Scan:
        return runScan();
    case Command::List:
        return operations::listKnownDevices();
    case Command::Restore:
        return runRestore();
    case Command::Forget:
        return runForget(*parsed.mac);
    case Command::Pair:
        return runPair(*parsed.mac);
    case Command::Usage:
    case Command::Unknown:
        break; // answered before the checks
    }
    return 1;
}

} // namespace

void printUsage(const std::string &invocationName) {
    const std::string usage =
        "Usage: " + invocationName + " [-v] [-e] [-l] [-r] [-f MAC] [-p MAC]\n\n" +
        "Options:\n"
        "  -v              Print D-Bus debug messages to stderr\n"
        "  -e              Scan for nearby Bluetooth devices on powered adapters\n"
        "  -l              List known devices from /var/lib/bluetooth (root)\n"
        "  -r              Restore /var/lib/bluetooth from backup (root)\n"
        "  -f MAC          Forget a known or connected device at MAC (root)\n"
        "  -p MAC          Pair, trust, and connect to the device at MAC (root)\n"
        "  -h              Show this help message\n\n"
        "All operations write one JSON result object to stdout.\n"
        "Pairing progress events are written to /tmp/kelvane-events.json.\n"
        "Use -v for debug output on stderr.\n\n"
        "List (-l), restore (-r), forget (-f), and pair (-p) must be run as root.\n";
    std::fwrite(usage.data(), 1, usage.size(), stdout);
    std::fflush(stdout);
}

bool requireRoot(const std::string &option) {
    if (geteuid() == 0)
        return true;
    writeError(option + " requires root privileges");
    return false;
}

void saveBluetoothConfig() {
    if (geteuid() != 0)
        return;
    if (const core::Status saved = storage::saveBackup(); !saved)
        core::DbusTrace::debug("warning: failed to save bluetooth config: " +
                               saved.error().message.toUtf8());
}

int runFrontEnd(int argc, char **argv) {
    qInstallMessageHandler(routeQtMessages);
    QCoreApplication application(argc, argv);
    // Taken from argv rather than QCoreApplication::arguments(): the words are
    // compared as bytes, whatever the locale's codec makes of them.
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i)
        words.emplace_back(argv[i]);
    const ParsedCommandLine parsed = parseCommandLine(words);
    if (parsed.trace)
        core::DbusTrace::setEnabled(true);
    return dispatch(parsed, argc > 0 ? std::string(argv[0]) : std::string());
}

} // namespace kelvane::app
