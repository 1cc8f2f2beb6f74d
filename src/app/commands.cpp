#include "app/commands.h"

#include "core/utf8.h"
#include "operations/forget.h"
#include "operations/knowndevices.h"
#include "operations/scan.h"
#include "pairing/pair.h"
#include "storage/backup.h"

#include <array>

namespace kelvane::app {

namespace {

result::ResultDocument scan(const std::string &) {
    return operations::scan();
}

result::ResultDocument listKnown(const std::string &) {
    return operations::listKnownDevices();
}

result::ResultDocument restore(const std::string &) {
    QString error;
    if (storage::restoreBackup(&error))
        return result::simpleResult(core::Status());
    return result::simpleResult(core::failure(error));
}

result::ResultDocument forget(const std::string &mac) {
    return operations::forget(mac);
}

result::ResultDocument pair(const std::string &mac) {
    return result::simpleResult(pairing::pairTrustConnect(mac));
}

// Word, MAC, root, store lock, backup, handler. The pair run reports before
// it saves: the caller learns the outcome without waiting for the copy. A
// forget saves first.
const std::array<Command, 5> commands{{
    {"-e", false, false, false, BackupSave::Never, scan},
    {"-l", false, true, true, BackupSave::Never, listKnown},
    {"-r", false, true, true, BackupSave::Never, restore},
    {"-f", true, true, true, BackupSave::BeforePrinting, forget},
    {"-p", true, true, true, BackupSave::AfterPrinting, pair},
}};

} // namespace

const Command *findCommand(const std::string &word) {
    for (const Command &command : commands) {
        if (word == command.word)
            return &command;
    }
    return nullptr;
}

} // namespace kelvane::app
