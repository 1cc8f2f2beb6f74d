#include "storage/atomicfile.h"

#include "storage/fd.h"
#include "storage/tree.h"
#include "storage/trustedpath.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

constexpr int nameAttempts = 16;

QByteArray temporaryPrefix(const QString &name) {
    return "." + QFile::encodeName(name) + ".";
}

// Unpredictable, so nobody can have planted something at it in advance.
QByteArray temporaryName(const QString &name) {
    unsigned char random[8] = {};
    if (::getrandom(random, sizeof random, 0) != sizeof random)
        return QByteArray();
    return temporaryPrefix(name) +
           QByteArray(reinterpret_cast<const char *>(random), sizeof random).toHex();
}

bool writeAll(int fd, const QByteArray &content) {
    for (qsizetype done = 0; done < content.size();) {
        const ssize_t put =
            ::write(fd, content.constData() + done, static_cast<size_t>(content.size() - done));
        if (put < 0 && errno != EINTR)
            return false;
        if (put > 0)
            done += put;
    }
    return true;
}

core::Error notWritten(const QString &dir, const QString &name) {
    return core::failure(QStringLiteral("failed to write %1/%2").arg(dir, name));
}

} // namespace

core::Status replaceFile(const QString &dir, const QString &name, const QByteArray &content,
                         mode_t mode) {
    const Piece where = openTrustedRoot(dir);
    if (where.state != PieceState::Trusted)
        return notWritten(dir, name);
    const int dirFd = where.fd.get();
    for (int attempt = 0; attempt < nameAttempts; ++attempt) {
        const QByteArray temporary = temporaryName(name);
        if (temporary.isEmpty())
            break;
        // O_EXCL|O_NOFOLLOW: a new file, never something already there.
        Fd file(::openat(dirFd, temporary.constData(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid()) {
            if (errno == EEXIST)
                continue;
            break;
        }
        const bool written = writeAll(file.get(), content) && ::fchmod(file.get(), mode) == 0;
        if (written && ::renameat(dirFd, temporary.constData(), dirFd,
                                  QFile::encodeName(name).constData()) == 0)
            return {};
        ::unlinkat(dirFd, temporary.constData(), 0);
        break;
    }
    return notWritten(dir, name);
}

void removeStaleTemporaries(const QString &dir, const QString &name) {
    const Piece where = openTrustedRoot(dir);
    if (where.state != PieceState::Trusted)
        return;
    const std::string prefix = temporaryPrefix(name).toStdString();
    for (const std::string &entry : entryNames(where.fd.get())) {
        struct stat st {};
        // Only plain files of ours: in a sticky directory nobody else can
        // swap them between this check and the removal.
        if (entry.compare(0, prefix.size(), prefix) == 0 &&
            ::fstatat(where.fd.get(), entry.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && st.st_uid == ::geteuid())
            ::unlinkat(where.fd.get(), entry.c_str(), 0);
    }
}

} // namespace kelvane::storage
