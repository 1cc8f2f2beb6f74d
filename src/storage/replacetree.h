#pragma once

#include "core/expected.h"

#include <QString>

#include <functional>
#include <string>

#include <sys/types.h>

// Replacing a whole directory tree so that a kill or a full disk at any
// moment leaves the old or the new tree, never a mix of both.
namespace kelvane::storage {

// A directory by its parent's descriptor and its name; `parentPath` only
// names it in messages.
struct TreeLocation {
    int parentFd = -1;
    QString parentPath;
    std::string name;

    QString path() const;
};

// Fills the empty directory stagingFd with the new visible entries; reuseFd
// is the old tree (or -1), on the same file system, to take unchanged files from.
using TreeFiller = std::function<core::Status(int stagingFd, int reuseFd)>;

// Builds the new tree with `fill` beside the old one, syncs it and swaps it
// in; the old tree's hidden entries are carried over and the root gets
// `rootMode`. A tree that is a mount point cannot be swapped as a whole: its
// new entries are staged inside it and moved in one by one, and an
// interrupted move is completed by the next recovery. On failure the old
// tree is untouched and nothing of the attempt stays behind.
core::Status replaceTree(const TreeLocation &where, mode_t rootMode, const TreeFiller &fill);

// Removes what an interrupted replacement left and completes a move that had
// passed the point of no return. Run before anything reads the tree.
void recoverTree(const TreeLocation &where);

} // namespace kelvane::storage
