#pragma once

#include "core/expected.h"
#include "storage/fd.h"

#include <QString>

#include <chrono>

namespace kelvane::storage {

// An exclusive hold on the lock file: one run at a time changes the store,
// its backup and the event file. Released when it goes out of scope (and by
// the kernel when the process dies, however it dies).
class StoreLock {
public:
    explicit StoreLock(Fd fd) : m_fd(std::move(fd)) {}

private:
    Fd m_fd;
};

// Waits up to `bound` for runs that hold the lock to finish.
core::Expected<StoreLock> lockStore(const QString &path, std::chrono::milliseconds bound);

// How long a run waits for another: longer than a pairing normally takes.
inline constexpr std::chrono::seconds lockWaitBound{90};

} // namespace kelvane::storage
