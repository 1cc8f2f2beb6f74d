#pragma once

#include "core/expected.h"
#include "result/resultdocument.h"

#include <string>

namespace kelvane::app {

// When a run that changed the pairing state mirrors the store into its backup.
enum class BackupSave { Never, BeforePrinting, AfterPrinting };

// One operation of the command line and what the front end does around it.
struct Command {
    const char *word;
    bool needsMac;
    bool needsRoot;
    // Taken before the run (after `check`): the run changes the store, its
    // backup or the event file.
    bool needsStoreLock;
    // Only after a run whose document is not an error.
    BackupSave backup;
    // Rejects a malformed argument before the lock is waited for; may be null.
    core::Status (*check)(const std::string &mac);
    result::ResultDocument (*run)(const std::string &mac);
};

// The operation named by `word`, compared byte for byte; null for any other word.
const Command *findCommand(const std::string &word);

} // namespace kelvane::app
