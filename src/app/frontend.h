#pragma once

#include <string>

namespace kelvane::app {

// The whole program: parses the words, runs one operation, prints at most
// one result line and returns the exit status. main() only calls this.
int runFrontEnd(int argc, char **argv);

void printUsage(const std::string &invocationName);

// True for effective uid 0; otherwise prints "error: <option> requires root privileges".
bool requireRoot(const std::string &option);

// After a change to pairing state: mirror the store into the backup (root only).
void saveBluetoothConfig();

} // namespace kelvane::app
