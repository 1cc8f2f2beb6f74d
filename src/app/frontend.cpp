#include "app/frontend.h"

#include "app/commandline.h"
#include "core/trace.h"
#include "result/json.h"
#include "storage/backup.h"

#include <QtGlobal>

#include <clocale>
#include <cstdio>
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

int runOperation(const Command &command, const std::string &mac) {
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
    QString error;
    if (!storage::saveBackup(&error))
        core::DbusTrace::debug("warning: failed to save bluetooth config: " + error.toUtf8());
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
