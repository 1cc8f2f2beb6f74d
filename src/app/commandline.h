#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelvane::app {

enum class Command { Usage, Scan, List, Restore, Forget, Pair, Unknown };

// What the words after argv[0] ask for. Every "-v" is removed before the
// command and its MAC are taken; words after them are ignored.
struct ParsedCommandLine {
    Command command = Command::Usage;
    std::string word;               // the command word as typed (for messages)
    std::optional<std::string> mac; // only for -f and -p, when present
    bool trace = false;             // at least one "-v"
};

ParsedCommandLine parseCommandLine(const std::vector<std::string> &words);

bool commandNeedsMac(Command command);
bool commandNeedsRoot(Command command);

} // namespace kelvane::app
