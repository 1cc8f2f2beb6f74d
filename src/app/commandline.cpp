#include "app/commandline.h"

#include <array>
#include <utility>

namespace kelvane::app {

namespace {

// Tried in this order; the first equal word wins.
const std::array<std::pair<const char *, Command>, 7> dispatchTable{{
    {"-e", Command::Scan},
    {"-l", Command::List},
    {"-r", Command::Restore},
    {"-f", Command::Forget},
    {"-p", Command::Pair},
    {"-h", Command::Usage},
    {"--help", Command::Usage},
}};

Command commandFor(const std::string &word) {
    for (const auto &[text, command] : dispatchTable) {
        if (word == text)
            return command;
    }
    return Command::Unknown;
}

} // namespace

ParsedCommandLine parseCommandLine(const std::vector<std::string> &words) {
    ParsedCommandLine parsed;
    std::vector<std::string> arguments;
    for (const std::string &word : words) {
        if (word == "-v")
            parsed.trace = true;
        else
            arguments.push_back(word);
    }
    if (arguments.empty())
        return parsed;
    parsed.word = arguments.front();
    parsed.command = commandFor(parsed.word);
    if (commandNeedsMac(parsed.command) && arguments.size() > 1)
        parsed.mac = arguments[1];
    return parsed;
}

bool commandNeedsMac(Command command) {
    return command == Command::Forget || command == Command::Pair;
}

bool commandNeedsRoot(Command command) {
    return command == Command::List || command == Command::Restore || command == Command::Forget ||
           command == Command::Pair;
}

} // namespace kelvane::app
