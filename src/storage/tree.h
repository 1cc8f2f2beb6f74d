#pragma once

#include "core/expected.h"
#include "storage/fd.h"

#include <QString>

#include <string>
#include <vector>

#include <sys/types.h>

// Directory trees handled through descriptors. Paths appear only in messages.
namespace kelvane::storage {

// The names in a directory, "." and ".." left out, in no particular order.
std::vector<std::string> entryNames(int dirFd);

// Names beginning with '.' are neither copied nor removed when a tree is
// mirrored; they also hold the tool's own work in progress.
bool isHidden(const std::string &name);

// Whether dirFd holds an entry of that name (a link counts, unfollowed).
bool existsAt(int dirFd, const std::string &name);

// A subdirectory, never reached through a link.
Fd openDirectoryAt(int dirFd, const std::string &name);

// Creates a directory with exactly `mode`, whatever the umask; invalid on failure.
Fd makeDirectoryAt(int dirFd, const std::string &name, mode_t mode);

// Deletes the entry and, when it is a real directory, everything below it.
// A link is removed itself, never followed, so nothing outside can be deleted
// through one. Goes on past failures; false when anything stayed.
bool removeTreeAt(int dirFd, const std::string &name);

// Copies the visible entries of source into the empty directory target,
// following links: the copy holds plain files and directories with the same
// permission bits and times. Hidden entries, sockets, pipes, device nodes,
// dangling links and links back up the tree (which have no finite copy) are
// left out. The paths name source and target in messages.
//
// With reuseFd, a directory on target's file system that holds an earlier
// copy, a file found there unchanged (same size, time and mode, ours) is
// linked instead of copied: its data is neither read, written nor synced
// again, and removing the earlier copy later frees nothing.
core::Status copyVisibleEntries(int sourceFd, const QString &sourcePath, int targetFd,
                                const QString &targetPath, int reuseFd = -1);

// Whether copyVisibleEntries(source) would produce exactly the visible
// entries of copy (hidden entries of copy do not count).
bool isCurrentCopy(int sourceFd, int copyFd);

// Carries the hidden entries of source over into target as they are: other
// entries by hard link (links stay links), directories recreated with their
// owner and mode. Both must be on one file system.
core::Status cloneHiddenEntries(int sourceFd, int targetFd, const QString &targetPath);

QString childPath(const QString &dir, const std::string &name);

core::Error copyFailed(const QString &source, const QString &target);
core::Error createFailed(const QString &path);

} // namespace kelvane::storage
