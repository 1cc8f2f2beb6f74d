#pragma once

#include "core/expected.h"

#include <QString>
#include <QStringList>

// The backup copy of BlueZ's store, and the way back. Both directions build
// the new tree beside the old one and swap it in, so the store and the backup
// are always one complete version or the other.
namespace kelvane::storage {

// Where the backup lives: below a world-writable directory, reached one piece
// at a time so that nobody else's link or directory is ever used on the way.
struct BackupLocation {
    QString root;        // "/tmp"
    QStringList parents; // created when missing
    QString name;

    QString parentPath() const;
    QString path() const;
};

const BackupLocation &defaultBackupLocation();

// Mirrors the store's visible entries into the backup (the backup's own
// hidden entries stay). A backup path through a link or through anything
// another user owns or may write is refused.
core::Status saveBackupTo(const QString &store, const BackupLocation &backup);

// Replaces the store's visible entries with the backup's (the store's hidden
// entries stay). No backup, or a backup that is not a directory, is a
// successful no-op; a backup path that is not ours alone is refused with
// "untrusted backup path: <piece>".
core::Status restoreBackupTo(const BackupLocation &backup, const QString &store);

// Cleans up after a save or restore that was killed, completing a swap that
// had passed its point of no return. Run before the store or backup is used.
void recoverInterruptedCopies(const QString &store, const BackupLocation &backup);

core::Status saveBackup();
core::Status restoreBackup();
void recoverInterruptedCopies();

} // namespace kelvane::storage
