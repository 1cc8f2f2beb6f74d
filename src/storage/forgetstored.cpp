#include "storage/forgetstored.h"

#include "bluez/address.h"
#include "storage/fd.h"
#include "storage/storelisting.h"
#include "storage/tree.h"

#include <QFile>

#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

// Deleting inside a directory that someone else may write could be turned
// against us; such an adapter directory is left alone.
bool onlyOurs(int dirFd) {
    struct stat st {};
    return ::fstat(dirFd, &st) == 0 && st.st_uid == ::geteuid() &&
           !(st.st_mode & (S_IWGRP | S_IWOTH));
}

QString decoded(const std::string &name) {
    return QFile::decodeName(QByteArray::fromStdString(name));
}

bool isDirectoryAt(int dirFd, const std::string &name) {
    struct stat st {};
    return ::fstatat(dirFd, name.c_str(), &st, 0) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

bool forgetStoredDevice(const QString &address, StoredDevice *removed, const QString &root) {
    const Fd store(::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!store.valid())
        return false;
    bool removedAny = false;
    for (const std::string &adapterName : entryNames(store.get())) {
        if (isHidden(adapterName))
            continue;
        // Followed when it is a link: the adapter's store still lives there.
        const Fd adapter(
            ::openat(store.get(), adapterName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!adapter.valid() || !onlyOurs(adapter.get()))
            continue;
        for (const std::string &deviceName : entryNames(adapter.get())) {
            const QString deviceAddress = unescapeStoreName(decoded(deviceName));
            if (isHidden(deviceName) || !bluez::sameAddress(deviceAddress, address) ||
                !isDirectoryAt(adapter.get(), deviceName))
                continue;
            StoredDevice device;
            device.adapter = unescapeStoreName(decoded(adapterName));
            device.address = deviceAddress;
            const Fd deviceDir(
                ::openat(adapter.get(), deviceName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (deviceDir.valid())
                parseInfoAt(deviceDir.get(), device);
            // A device directory that is a link loses the link, not its target.
            if (!removeTreeAt(adapter.get(), deviceName))
                continue;
            if (removed)
                *removed = device;
            removedAny = true;
        }
    }
    return removedAny;
}

namespace {

std::optional<std::pair<ino_t, struct timespec>> stamp(const QString &path) {
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return std::nullopt;
    return std::make_pair(st.st_ino, st.st_mtim);
}

bool sameStamp(const std::optional<std::pair<ino_t, struct timespec>> &a,
               const std::optional<std::pair<ino_t, struct timespec>> &b) {
    return a.has_value() == b.has_value() &&
           (!a || (a->first == b->first && a->second.tv_sec == b->second.tv_sec &&
                   a->second.tv_nsec == b->second.tv_nsec));
}

} // namespace

PendingRemoval::PendingRemoval(const QString &root, const QString &adapter, const QString &device)
    : m_directory(root + QLatin1Char('/') + adapter + QLatin1Char('/') + device),
      m_cacheEntry(root + QLatin1Char('/') + adapter + QStringLiteral("/cache/") + device) {
    m_stored = !adapter.isEmpty() && !device.isEmpty() && stamp(m_directory).has_value();
    m_cacheBefore = stamp(m_cacheEntry);
}

void PendingRemoval::await(std::chrono::milliseconds bound) const {
    // A device the store does not hold leaves nothing to wait for.
    if (!m_stored)
        return;
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!stamp(m_directory) &&
            (!m_cacheBefore || !sameStamp(stamp(m_cacheEntry), m_cacheBefore)))
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace kelvane::storage
