#include "app/frontend.h"

#include "app/commandline.h"
#include "core/trace.h"
#include "result/json.h"
#include "storage/backup.h"
#include "storage/lock.h"
#include "storage/paths.h"

#include <QtGlobal>

#include <clocale>
#include <cstdio>
#include <optional>
#include <unistd.h>

namespace kelvane::app {

namespace {

void writeError(const std::string &text) {
    const std::string line = "error: " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

// Qt's own warnings (a daemon sending odd types, say) must never reach the
// caller's stderr unasked: they become debug lines of the -v trace.
void routeQtMessages(QtMsgType, const QMessageLogContext &, const QString &message) {
    core::DbusTrace::debug("qt: " + message.toUtf8());
}

int printFailure(const core::Error &error) {
    result::writeResultLine(result::resultToJson(result::simpleResult(error)));
    return 1;
}

int runOperation(const Command &command, const std::string &mac) {
    // A malformed argument fails at once, without waiting for another run.
    if (command.check) {
        if (const core::Status checked = command.check(mac); !checked)
            return printFailure(checked.error());
    }
    // One run at a time changes the store, its backup and the event file;
    // what a killed run left half done is settled before anything reads them.
    std::optional<storage::StoreLock> lock;
    if (command.needsStoreLock) {
        core::Expected<storage::StoreLock> taken =
            storage::lockStore(storage::lockFile, storage::lockWaitBound);
        if (!taken)
            return printFailure(taken.error());
        lock.emplace(std::move(*taken));
        storage::recoverInterruptedCopies();
    }
    const result::ResultDocument document = command.run(mac);
    const bool succeeded = document.status() != result::ResultStatus::Error;
    if (succeeded && command.backup == BackupSave::BeforePrinting)
        saveBluetoothConfig();
    result::writeResultLine(result::resultToJson(document));
    if (succeeded && command.backup == BackupSave::AfterPrinting)
        saveBluetoothConfig();
    return succeeded ? 0 : 1;
}

int dispatch(const ParsedCommandLine &parsed, const std::string &invocationName) {
    switch (parsed.kind) {
    case ParsedCommandLine::Kind::Usage:
        printUsage(invocationName);
        return 0;
    case ParsedCommandLine::Kind::Unknown:
        writeError("unknown option: " + parsed.word);
        printUsage(invocationName);
        return 1;
    case ParsedCommandLine::Kind::Operation:
        break;
    }
    const Command &command = *parsed.command;
    if (command.needsMac && !parsed.mac) {
        writeError(parsed.word + " requires a Bluetooth MAC address");
        printUsage(invocationName);
        return 1;
    }
    if (command.needsRoot && !requireRoot(parsed.word))
        return 1;
    return runOperation(command, parsed.mac.value_or(std::string()));
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

int runFrontEnd(const std::string &invocationName, const std::vector<std::string> &words) {
    qInstallMessageHandler(routeQtMessages);
    // What QCoreApplication would do, and nothing needs one otherwise: file
    // names are encoded in the locale's character set.
    std::setlocale(LC_ALL, "");
    const ParsedCommandLine parsed = parseCommandLine(words);
    if (parsed.trace)
        core::DbusTrace::setEnabled(true);
    return dispatch(parsed, invocationName);
}

} // namespace kelvane::app
