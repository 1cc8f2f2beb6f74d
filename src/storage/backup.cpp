#include "storage/backup.h"

#include "storage/paths.h"
#include "storage/removal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <unistd.h>

namespace kelvane::storage {

namespace {

void setError(QString *error, const QString &text) {
    if (error)
        *error = text;
}

// Directories and files only: sockets, pipes and dangling links are left
// alone, and so is anything hidden.
QFileInfoList visibleEntries(const QString &dir) {
    return QDir(dir).entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot,
                                   QDir::NoSort);
}

// The canonical form of path, also for a path that does not exist yet: its
// nearest existing ancestor resolved, the rest appended.
QString resolvedPath(const QString &path) {
    const QFileInfo info(path);
    if (info.exists())
        return info.canonicalFilePath();
    const QString parent = info.absolutePath();
    if (parent == info.absoluteFilePath())
        return parent;
    return QDir(resolvedPath(parent)).filePath(info.fileName());
}

// QFileInfo adds "user" flags from access() for the caller, and root may
// write anything: copied as they are, a 0400 link key would come out 0600.
// Only the owner, group and other bits of the mode count.
QFile::Permissions modeOf(const QFileInfo &info) {
    return info.permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser);
}

bool isWithin(const QString &path, const QString &dir) {
    const QString prefix = dir.endsWith(QLatin1Char('/')) ? dir : dir + QLatin1Char('/');
    return path == dir || path.startsWith(prefix);
}

// Mirroring between nested directories (say, a backup path that is a link to
// the store) would clear the source or copy it into itself.
bool overlap(const QString &source, const QString &target) {
    const QString a = resolvedPath(source);
    const QString b = resolvedPath(target);
    return isWithin(a, b) || isWithin(b, a);
}

// Canonical paths of the directories currently being copied, outermost
// first. A link back to one of them would otherwise make the copy endless.
using Ancestors = QStringList;

bool copyTree(const QString &source, const QString &target, Ancestors &ancestors, QString *error);

bool copyEntries(const QString &source, const QString &target, Ancestors &ancestors,
                 QString *error) {
    const QDir targetDir(target);
    for (const QFileInfo &entry : visibleEntries(source)) {
        if (!copyTree(entry.filePath(), targetDir.filePath(entry.fileName()), ancestors, error))
            return false;
    }
    return true;
}

bool copyFile(const QFileInfo &source, const QString &target, QString *error) {
    const QFileInfo existing(target);
    // isSymLink also catches a dangling link, which exists() does not see.
    if ((existing.exists() || existing.isSymLink()) && !QFile::remove(target)) {
        setError(error, QStringLiteral("failed to remove existing file: %1").arg(target));
        return false;
    }
    // Copying through a link yields the content of what it points to. The
    // store holds link keys readable by root only, so the mode must follow.
    if (!QFile::copy(source.filePath(), target) || !QFile::setPermissions(target, modeOf(source))) {
        setError(error, QStringLiteral("failed to copy %1 to %2").arg(source.filePath(), target));
        return false;
    }
    return true;
}

bool copyTree(const QString &source, const QString &target, Ancestors &ancestors, QString *error) {
    const QFileInfo info(source);
    if (!info.exists()) {
        setError(error, QStringLiteral("source path does not exist: %1").arg(source));
        return false;
    }
    if (!info.isDir())
        return copyFile(info, target, error);

    const QString canonical = info.canonicalFilePath();
    if (ancestors.contains(canonical)) {
        setError(error, QStringLiteral("failed to copy %1 to %2").arg(source, target));
        return false;
    }
    if (!QDir().mkpath(target)) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(target));
        return false;
    }
    ancestors.append(canonical);
    if (!copyEntries(source, target, ancestors, error))
        return false;
    ancestors.removeLast();
    // Applied last so that a read-only source mode cannot block the copy.
    if (!QFile::setPermissions(target, modeOf(info))) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(target));
        return false;
    }
    return true;
}

} // namespace

bool copyRecursively(const QString &source, const QString &target, QString *error) {
    Ancestors ancestors;
    return copyTree(source, target, ancestors, error);
}

bool clearDirectoryContents(const QString &dir, QString *error) {
    if (!QFileInfo::exists(dir))
        return true;
    for (const QFileInfo &entry : visibleEntries(dir)) {
        // A link to a directory lists as a directory, but only the link goes.
        const bool realDir = entry.isDir() && !entry.isSymLink();
        if (removeTree(entry.filePath()))
            continue;
        const QString text = realDir ? QStringLiteral("failed to remove directory: %1")
                                     : QStringLiteral("failed to remove file: %1");
        setError(error, text.arg(entry.absoluteFilePath()));
        return false;
    }
    return true;
}

bool mirrorDirectory(const QString &source, const QString &target, QString *error) {
    const QFileInfo sourceInfo(source);
    if (!sourceInfo.isDir()) {
        setError(error, QStringLiteral("source directory does not exist: %1").arg(source));
        return false;
    }
    if (overlap(source, target)) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(target));
        return false;
    }
    const QString parent = QFileInfo(target).absolutePath();
    if (!QDir().mkpath(parent)) {
        setError(error, QStringLiteral("failed to create parent directory: %1").arg(parent));
        return false;
    }
    if (QFileInfo::exists(target)) {
        if (!clearDirectoryContents(target, error))
            return false;
    } else if (!QDir().mkdir(target)) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(target));
        return false;
    }

    Ancestors ancestors{sourceInfo.canonicalFilePath()};
    if (!copyEntries(source, target, ancestors, error))
        return false;
    if (!QFile::setPermissions(target, modeOf(sourceInfo))) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(target));
        return false;
    }
    return true;
}

bool restoreBackupFrom(const QString &backup, const QString &store, QString *error) {
    if (!QFileInfo(backup).isDir())
        return true;
    // Checked before clearing: once the store is emptied it is too late.
    if (overlap(backup, store)) {
        setError(error, QStringLiteral("failed to create directory: %1").arg(store));
        return false;
    }
    if (!clearDirectoryContents(store, error))
        return false;
    return mirrorDirectory(backup, store, error);
}

namespace {

// The backup lives in world-writable /tmp, where anyone may have planted a
// link or a directory of their own on its way. A save run as root clears the
// target before copying into it, and a restore copies link keys into the
// store: every existing piece of the path below `below` must be a real
// directory owned by us. Returns the first piece that is not, or "".
QString foreignPathPiece(const QString &backup, const QString &below) {
    const uint ourUid = static_cast<uint>(geteuid());
    for (QString path = backup; path.startsWith(below + QLatin1Char('/'));
         path = QFileInfo(path).path()) {
        const QFileInfo info(path);
        if (!info.exists() && !info.isSymLink())
            continue;
        if (info.isSymLink() || !info.isDir() || info.ownerId() != ourUid)
            return path;
    }
    return QString();
}

} // namespace

bool saveBackupTo(const QString &store, const QString &backup, const QString &trustedRoot,
                  QString *error) {
    const QString foreign = foreignPathPiece(backup, trustedRoot);
    if (!foreign.isEmpty()) {
        setError(error, foreign == backup
                            ? QStringLiteral("failed to create directory: %1").arg(foreign)
                            : QStringLiteral("failed to create parent directory: %1").arg(foreign));
        return false;
    }
    return mirrorDirectory(store, backup, error);
}

bool restoreTrustedBackup(const QString &backup, const QString &store, const QString &trustedRoot,
                          QString *error) {
    if (!QFileInfo(backup).isDir())
        return true;
    const QString foreign = foreignPathPiece(backup, trustedRoot);
    if (!foreign.isEmpty()) {
        setError(error, QStringLiteral("untrusted backup path: %1").arg(foreign));
        return false;
    }
    return restoreBackupFrom(backup, store, error);
}

bool saveBackup(QString *error) {
    return saveBackupTo(storeRoot, backupRoot, QStringLiteral("/tmp"), error);
}

bool restoreBackup(QString *error) {
    return restoreTrustedBackup(backupRoot, storeRoot, QStringLiteral("/tmp"), error);
}

} // namespace kelvane::storage
