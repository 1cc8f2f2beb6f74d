#pragma once

#include "app/commands.h"

#include <optional>
#include <string>
#include <vector>

namespace kelvane::app {

// What the words after argv[0] ask for. Every "-v" is removed before the
// command and its MAC are taken; words after them are ignored.
struct ParsedCommandLine {
    enum class Kind { Usage, Operation, Unknown };
    Kind kind = Kind::Usage;
    const Command *command = nullptr; // for Kind::Operation
    std::string word;                 // the first word as typed (for messages)
    std::optional<std::string> mac;   // only for commands that take one, when present
    bool trace = false;               // at least one "-v"
};

ParsedCommandLine parseCommandLine(const std::vector<std::string> &words);

} // namespace kelvane::app
