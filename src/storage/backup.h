#pragma once

#include <QString>

namespace kelvane::storage {

// Copies a file, or a directory with its visible entries, to target, merging
// into what is already there. Links are followed: the copy holds plain files
// and directories. Permission bits are kept.
bool copyRecursively(const QString &source, const QString &target, QString *error = nullptr);

// Removes the visible entries of dir, leaving dir itself and its hidden
// entries. A missing dir counts as cleared.
bool clearDirectoryContents(const QString &dir, QString *error = nullptr);

// Makes target hold exactly the visible entries of source (hidden entries of
// target stay), creating target and its parents as needed.
bool mirrorDirectory(const QString &source, const QString &target, QString *error = nullptr);

// Replaces store's visible contents with backup's. A missing backup, or one
// that is not a directory, is a successful no-op.
bool restoreBackupFrom(const QString &backup, const QString &store, QString *error = nullptr);

// Mirrors store into backup, after checking that every existing directory of
// backup below trustedRoot is a real directory owned by the effective user.
bool saveBackupTo(const QString &store, const QString &backup, const QString &trustedRoot,
                  QString *error = nullptr);

// restoreBackupFrom, after the same ownership check as saveBackupTo; a backup
// path that fails it is refused with "untrusted backup path: <piece>".
bool restoreTrustedBackup(const QString &backup, const QString &store, const QString &trustedRoot,
                          QString *error = nullptr);

// Mirrors the live store into the backup location.
bool saveBackup(QString *error = nullptr);

// Puts the backup back into the live store.
bool restoreBackup(QString *error = nullptr);

} // namespace kelvane::storage
