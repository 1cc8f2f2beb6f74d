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
    return result::simpleResult(storage::restoreBackup());
}

template <typename T> core::Status statusOf(const core::Expected<T> &checked) {
    return checked ? core::Status() : core::Status(checked.error());
}

core::Status checkForgetAddress(const std::string &mac) {
    return statusOf(operations::forgetAddress(mac));
}

core::Status checkPairAddress(const std::string &mac) {
    return statusOf(pairing::pairAddress(mac));
}

result::ResultDocument forget(const std::string &mac) {
    return operations::forget(mac);
}

result::ResultDocument pair(const std::string &mac) {
    return result::simpleResult(pairing::pairTrustConnect(mac));
}

// Word, MAC, root, store lock, backup, check, handler. The pair run reports
// before it saves: the caller learns the outcome without waiting for the
// copy. A forget saves first. Reading (-e, -l) never waits for the lock.
const std::array<Command, 5> commands{{
    {"-e", false, false, false, BackupSave::Never, nullptr, scan},
    {"-l", false, true, false, BackupSave::Never, nullptr, listKnown},
    {"-r", false, true, true, BackupSave::Never, nullptr, restore},
    {"-f", true, true, true, BackupSave::BeforePrinting, checkForgetAddress, forget},
    {"-p", true, true, true, BackupSave::AfterPrinting, checkPairAddress, pair},
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
