#pragma once

#include "storage/fd.h"

#include <QString>

#include <sys/types.h>

// Walking down from a world-writable directory such as /tmp, one piece at a
// time, so that nobody else's link or directory is ever used on the way.
namespace kelvane::storage {

enum class PieceState {
    Trusted,      // a directory of ours that nobody else may write into; fd is open
    Absent,       // nothing there
    NotDirectory, // something of ours that is not a directory
    Untrusted,    // a link, or an entry of another user or writable by others
    Failed,       // the file system refused (read-only, full, ...)
};

struct Piece {
    PieceState state = PieceState::Failed;
    QString path;
    Fd fd;
};

enum class Create { No, IfAbsent };

// The starting point: a directory owned by root or us that others may write
// into only when the sticky bit keeps them from replacing our entries.
Piece openTrustedRoot(const QString &path);

// One step down from a trusted piece. With Create::IfAbsent a missing
// directory is made with exactly `mode`.
Piece openTrustedChild(const Piece &parent, const QString &name, Create create = Create::No,
                       mode_t mode = 0755);

} // namespace kelvane::storage
