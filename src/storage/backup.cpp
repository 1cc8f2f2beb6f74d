#include "storage/backup.h"

#include "storage/fd.h"
#include "storage/paths.h"
#include "storage/replacetree.h"
#include "storage/tree.h"
#include "storage/trustedpath.h"

#include <QFile>
#include <QFileInfo>

#include <climits>
#include <cstdlib>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace kelvane::storage {

namespace {

std::string fileName(const QString &name) {
    return QFile::encodeName(name).toStdString();
}

// Down the backup's parents, creating them when asked. The piece returned
// is the deepest one reached: the parent itself, or the one that failed.
Piece openBackupParent(const BackupLocation &backup, Create create) {
    Piece piece = openTrustedRoot(backup.root);
    for (const QString &name : backup.parents) {
        if (piece.state != PieceState::Trusted)
            break;
        piece = openTrustedChild(piece, name, create);
    }
    return piece;
}

// The store is root's own: a link at its path (to persistent storage, say)
// is followed, and the swap happens where the tree really lives.
struct StoreLocation {
    Fd parent;
    QString parentPath;
    std::string name;
};

std::optional<StoreLocation> locateStore(const QString &store) {
    const QFileInfo info(store);
    QString real = info.canonicalFilePath();
    if (real.isEmpty()) {
        const QString parent = QFileInfo(info.absolutePath()).canonicalFilePath();
        if (parent.isEmpty())
            return std::nullopt;
        real = parent + QLatin1Char('/') + info.fileName();
    }
    const QFileInfo located(real);
    StoreLocation location;
    location.parentPath = located.absolutePath();
    location.name = fileName(located.fileName());
    location.parent = Fd(::open(QFile::encodeName(location.parentPath).constData(),
                                O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!location.parent.valid())
        return std::nullopt;
    return location;
}

// A store that cannot be changed at all fails where emptying it would have
// failed first: at one of its visible entries.
std::optional<core::Error> readOnlyStore(const StoreLocation &location, const QString &store) {
    const Fd tree = openDirectoryAt(location.parent.get(), location.name);
    struct statvfs fs {};
    if (!tree.valid() || ::fstatvfs(tree.get(), &fs) != 0 || !(fs.f_flag & ST_RDONLY))
        return std::nullopt;
    for (const std::string &name : entryNames(tree.get())) {
        struct stat st {};
        if (isHidden(name) || ::fstatat(tree.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        const QString text = S_ISDIR(st.st_mode) ? QStringLiteral("failed to remove directory: %1")
                                                 : QStringLiteral("failed to remove file: %1");
        return core::failure(text.arg(childPath(store, name)));
    }
    return createFailed(store);
}

} // namespace

QString BackupLocation::parentPath() const {
    return parents.isEmpty() ? root : root + QLatin1Char('/') + parents.join(QLatin1Char('/'));
}

QString BackupLocation::path() const {
    return parentPath() + QLatin1Char('/') + name;
}

const BackupLocation &defaultBackupLocation() {
    static const BackupLocation location{QStringLiteral("/tmp"),
                                         {QStringLiteral("config"), QStringLiteral("files")},
                                         QStringLiteral("var_bluetooth")};
    return location;
}

core::Status saveBackupTo(const QString &store, const BackupLocation &backup) {
    const Fd source(
        ::open(QFile::encodeName(store).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st {};
    if (!source.valid() || ::fstat(source.get(), &st) != 0)
        return core::failure(QStringLiteral("source directory does not exist: %1").arg(store));
    const Piece parent = openBackupParent(backup, Create::IfAbsent);
    if (parent.state != PieceState::Trusted)
        return core::failure(
            QStringLiteral("failed to create parent directory: %1").arg(backup.parentPath()));
    const TreeLocation where{parent.fd.get(), parent.path, fileName(backup.name)};
    const Piece target = openTrustedChild(parent, backup.name);
    if (target.state == PieceState::Trusted && isCurrentCopy(source.get(), target.fd.get()))
        return {}; // nothing changed since the last save
    if (target.state != PieceState::Trusted && target.state != PieceState::Absent)
        return createFailed(backup.path());
    return replaceTree(where, st.st_mode & 0777, [&](int staging, int reuse) {
        return copyVisibleEntries(source.get(), store, staging, backup.path(), reuse);
    });
}

core::Status restoreBackupTo(const BackupLocation &backup, const QString &store) {
    Piece piece = openBackupParent(backup, Create::No);
    if (piece.state == PieceState::Trusted)
        piece = openTrustedChild(piece, backup.name);
    switch (piece.state) {
    case PieceState::Trusted:
        break;
    case PieceState::Absent:
    case PieceState::NotDirectory:
        return {}; // nothing to restore
    case PieceState::Untrusted:
    case PieceState::Failed:
        return core::failure(QStringLiteral("untrusted backup path: %1").arg(piece.path));
    }
    struct stat st {};
    if (::fstat(piece.fd.get(), &st) != 0)
        return core::failure(QStringLiteral("untrusted backup path: %1").arg(piece.path));
    const std::optional<StoreLocation> location = locateStore(store);
    if (!location)
        return core::failure(QStringLiteral("failed to create parent directory: %1")
                                 .arg(QFileInfo(store).absolutePath()));
    const TreeLocation where{location->parent.get(), location->parentPath, location->name};
    if (const Fd current = openDirectoryAt(where.parentFd, where.name);
        current.valid() && isCurrentCopy(piece.fd.get(), current.get()))
        return {}; // the store already is the backup
    if (const std::optional<core::Error> readOnly = readOnlyStore(*location, store))
        return *readOnly;
    return replaceTree(where, st.st_mode & 0777, [&](int staging, int reuse) {
        return copyVisibleEntries(piece.fd.get(), backup.path(), staging, store, reuse);
    });
}

void recoverInterruptedCopies(const QString &store, const BackupLocation &backup) {
    if (const std::optional<StoreLocation> location = locateStore(store))
        recoverTree({location->parent.get(), location->parentPath, location->name});
    const Piece parent = openBackupParent(backup, Create::No);
    if (parent.state == PieceState::Trusted)
        recoverTree({parent.fd.get(), parent.path, fileName(backup.name)});
}

core::Status saveBackup() {
    return saveBackupTo(storeRoot, defaultBackupLocation());
}

core::Status restoreBackup() {
    return restoreBackupTo(defaultBackupLocation(), storeRoot);
}

void recoverInterruptedCopies() {
    recoverInterruptedCopies(storeRoot, defaultBackupLocation());
}

} // namespace kelvane::storage
