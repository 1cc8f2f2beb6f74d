#include "app/commandline.h"

namespace kelvane::app {

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
    if (parsed.word == "-h" || parsed.word == "--help")
        return parsed;
    parsed.command = findCommand(parsed.word);
    if (!parsed.command) {
        parsed.kind = ParsedCommandLine::Kind::Unknown;
        return parsed;
    }
    parsed.kind = ParsedCommandLine::Kind::Operation;
    if (parsed.command->needsMac && arguments.size() > 1)
        parsed.mac = arguments[1];
    return parsed;
}

} // namespace kelvane::app
