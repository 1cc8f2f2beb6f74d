#pragma once

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
    // Reserved for the store lock: the front end does not act on it yet.
    bool needsStoreLock;
    // Only after a run whose document is not an error.
    BackupSave backup;
    result::ResultDocument (*run)(const std::string &mac);
};

// The operation named by `word`, compared byte for byte; null for any other word.
const Command *findCommand(const std::string &word);

} // namespace kelvane::app
