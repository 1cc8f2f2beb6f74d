#pragma once

#include "storage/infofile.h"

#include <QString>

#include <chrono>
#include <optional>
#include <utility>

#include <sys/stat.h>

namespace kelvane::storage {

// Deletes the directory of the device with this address (any letter case,
// '-' or ':' separated) under every adapter of the store at root. When
// removed is given it receives the record of the last directory deleted.
// True when at least one directory was deleted. An adapter directory that is
// a link (to persistent storage, say) is searched like any other, but never
// one that another user owns or may write into.
bool forgetStoredDevice(const QString &address, StoredDevice *removed, const QString &root);

// bluetoothd answers RemoveDevice before it has finished on disk: it deletes
// the device's directory, then rewrites the device's entry in the adapter's
// cache. Noted before the removal, awaited after it (up to `bound`), so that
// a backup saved next holds the store as bluetoothd leaves it.
class PendingRemoval {
public:
    PendingRemoval(const QString &root, const QString &adapter, const QString &device);
    void await(std::chrono::milliseconds bound) const;

private:
    QString m_directory;
    QString m_cacheEntry;
    bool m_stored = false;
    std::optional<std::pair<ino_t, struct timespec>> m_cacheBefore;
};

} // namespace kelvane::storage
