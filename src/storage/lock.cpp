#include "storage/lock.h"

#include <QFile>

#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

constexpr std::chrono::milliseconds retryInterval{50};

core::Error cannotLock(const QString &path) {
    return core::failure(QStringLiteral("cannot lock %1").arg(path));
}

} // namespace

core::Expected<StoreLock> lockStore(const QString &path, std::chrono::milliseconds bound) {
    Fd fd(::open(QFile::encodeName(path).constData(),
                 O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600));
    struct stat st {};
    // Only a plain file of ours will do: anything else means someone else put it there.
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_uid != ::geteuid() || st.st_nlink != 1)
        return cannotLock(path);
    ::fchmod(fd.get(), 0600);
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return cannotLock(path);
        if (std::chrono::steady_clock::now() >= deadline)
            return core::failure(
                QStringLiteral("another kelvane run is still busy (%1)").arg(path));
        std::this_thread::sleep_for(retryInterval);
    }
    return StoreLock(std::move(fd));
}

} // namespace kelvane::storage
