#pragma once

#include <string>
#include <vector>

namespace kelvane::app {

// The whole program after main() has taken its words: runs one operation,
// prints at most one result line and returns the exit status.
int runFrontEnd(const std::string &invocationName, const std::vector<std::string> &words);

void printUsage(const std::string &invocationName);

// True for effective uid 0; otherwise prints "error: <option> requires root privileges".
bool requireRoot(const std::string &option);

// After a change to pairing state: mirror the store into the backup (root only).
void saveBluetoothConfig();

} // namespace kelvane::app
