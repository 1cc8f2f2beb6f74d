#include "app/frontend.h"

#include <csignal>
#include <string>
#include <vector>

int main(int argc, char **argv) {
    // A reader that has gone away must not kill the run: a write to a broken
    // pipe then fails like any other, and the result still decides the status.
    std::signal(SIGPIPE, SIG_IGN);
    // The words as given, before any library gets to see argv.
    const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    return kelvane::app::runFrontEnd(argc > 0 ? argv[0] : "", words);
}
