#include "storage/trustedpath.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

constexpr mode_t writableByOthers = S_IWGRP | S_IWOTH;

Piece piece(PieceState state, const QString &path, Fd fd = Fd()) {
    Piece result;
    result.state = state;
    result.path = path;
    result.fd = std::move(fd);
    return result;
}

bool sameInode(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

PieceState judge(const struct stat &st) {
    if (S_ISLNK(st.st_mode) || st.st_uid != ::geteuid())
        return PieceState::Untrusted;
    if (!S_ISDIR(st.st_mode))
        return PieceState::NotDirectory;
    return (st.st_mode & writableByOthers) ? PieceState::Untrusted : PieceState::Trusted;
}

} // namespace

Piece openTrustedRoot(const QString &path) {
    Fd fd(::open(QFile::encodeName(path).constData(),
                 O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0)
        return piece(errno == ENOENT ? PieceState::Absent : PieceState::Untrusted, path);
    const bool owner = st.st_uid == 0 || st.st_uid == ::geteuid();
    const bool guarded = !(st.st_mode & writableByOthers) || (st.st_mode & S_ISVTX);
    return owner && guarded ? piece(PieceState::Trusted, path, std::move(fd))
                            : piece(PieceState::Untrusted, path);
}

Piece openTrustedChild(const Piece &parent, const QString &name, Create create, mode_t mode) {
    const QString path = parent.path + QLatin1Char('/') + name;
    if (parent.state != PieceState::Trusted)
        return piece(PieceState::Failed, path);
    const QByteArray entry = QFile::encodeName(name);
    const int dir = parent.fd.get();
    struct stat seen {};
    bool created = false;
    if (::fstatat(dir, entry.constData(), &seen, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT)
            return piece(PieceState::Failed, path);
        if (create == Create::No)
            return piece(PieceState::Absent, path);
        // 0700 until the mode is set through the descriptor below: the umask
        // must not decide who may enter.
        created = ::mkdirat(dir, entry.constData(), 0700) == 0;
        if (!created && errno != EEXIST)
            return piece(PieceState::Failed, path);
        if (::fstatat(dir, entry.constData(), &seen, AT_SYMLINK_NOFOLLOW) != 0)
            return piece(PieceState::Failed, path);
    }
    if (const PieceState state = judge(seen); state != PieceState::Trusted)
        return piece(state, path);
    Fd fd(::openat(dir, entry.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat opened {};
    // What was opened must be what was judged, not something swapped in between.
    if (!fd.valid() || ::fstat(fd.get(), &opened) != 0 || !sameInode(seen, opened))
        return piece(PieceState::Untrusted, path);
    if (created && ::fchmod(fd.get(), mode) != 0)
        return piece(PieceState::Failed, path);
    return piece(PieceState::Trusted, path, std::move(fd));
}

} // namespace kelvane::storage
