#include "storage/tree.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

struct DirectoryId {
    dev_t device;
    ino_t inode;
    bool operator==(const DirectoryId &other) const {
        return device == other.device && inode == other.inode;
    }
};

// The directories being copied, outermost first: a link back to one of them
// would make the copy endless.
using Ancestors = std::vector<DirectoryId>;

bool copyData(int in, int out) {
    for (;;) {
        const ssize_t copied = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (copied == 0)
            return true;
        if (copied > 0 || errno == EINTR)
            continue;
        if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)
            break; // between file systems the kernel may refuse; copy by hand
        return false;
    }
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(in, buffer, sizeof buffer);
        if (got == 0)
            return true;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(out, buffer + done, static_cast<size_t>(got - done));
            if (put < 0 && errno != EINTR)
                return false;
            if (put > 0)
                done += put;
        }
    }
}

// What a copy preserves, and so what tells an unchanged copy.
bool sameCopy(const struct stat &source, const struct stat &copy) {
    return S_ISREG(copy.st_mode) && copy.st_size == source.st_size &&
           copy.st_mtim.tv_sec == source.st_mtim.tv_sec &&
           copy.st_mtim.tv_nsec == source.st_mtim.tv_nsec &&
           (copy.st_mode & 07777) == (source.st_mode & 0777) && copy.st_uid == ::geteuid();
}

bool linkUnchanged(int reuseDir, const std::string &name, const struct stat &source,
                   int targetDir) {
    struct stat earlier {};
    return reuseDir >= 0 && ::fstatat(reuseDir, name.c_str(), &earlier, AT_SYMLINK_NOFOLLOW) == 0 &&
           sameCopy(source, earlier) &&
           ::linkat(reuseDir, name.c_str(), targetDir, name.c_str(), 0) == 0;
}

core::Status copyFile(int sourceDir, const std::string &name, int targetDir, const QString &from,
                      const QString &to) {
    // O_NONBLOCK: should the entry have become a pipe meanwhile, opening it must not hang.
    Fd in(::openat(sourceDir, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat opened {};
    if (!in.valid() || ::fstat(in.get(), &opened) != 0)
        return copyFailed(from, to);
    if (!S_ISREG(opened.st_mode))
        return {};
    Fd out(::openat(targetDir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    0600));
    if (!out.valid() || !copyData(in.get(), out.get()))
        return copyFailed(from, to);
    // The store holds link keys readable by root only, so the mode must follow.
    const struct timespec times[2] = {opened.st_atim, opened.st_mtim};
    if (::fchmod(out.get(), opened.st_mode & 0777) != 0 || ::futimens(out.get(), times) != 0)
        return copyFailed(from, to);
    return {};
}

core::Status copyEntries(int sourceFd, const QString &sourcePath, int targetFd,
                         const QString &targetPath, int reuseFd, Ancestors &ancestors) {
    for (const std::string &name : entryNames(sourceFd)) {
        if (isHidden(name))
            continue;
        struct stat st {};
        if (::fstatat(sourceFd, name.c_str(), &st, 0) != 0)
            continue; // a dangling link, or gone meanwhile
        const QString from = childPath(sourcePath, name);
        const QString to = childPath(targetPath, name);
        if (S_ISREG(st.st_mode)) {
            if (linkUnchanged(reuseFd, name, st, targetFd))
                continue;
            if (const core::Status copied = copyFile(sourceFd, name, targetFd, from, to); !copied)
                return copied;
            continue;
        }
        const DirectoryId id{st.st_dev, st.st_ino};
        if (!S_ISDIR(st.st_mode) ||
            std::find(ancestors.begin(), ancestors.end(), id) != ancestors.end())
            continue;
        Fd source(::openat(sourceFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!source.valid())
            return copyFailed(from, to);
        Fd made = makeDirectoryAt(targetFd, name, 0700);
        if (!made.valid())
            return createFailed(to);
        const Fd reuse = reuseFd >= 0 ? openDirectoryAt(reuseFd, name) : Fd();
        ancestors.push_back(id);
        const core::Status copied =
            copyEntries(source.get(), from, made.get(), to, reuse.get(), ancestors);
        ancestors.pop_back();
        if (!copied)
            return copied;
        // Applied last so that a read-only source mode cannot block the copy.
        if (::fchmod(made.get(), st.st_mode & 0777) != 0)
            return createFailed(to);
    }
    return {};
}

// Walks source as copyEntries would and compares with what copy holds.
bool sameEntries(int sourceFd, int copyFd, Ancestors &ancestors) {
    std::vector<std::string> copied;
    for (const std::string &name : entryNames(copyFd)) {
        if (!isHidden(name))
            copied.push_back(name);
    }
    size_t matched = 0;
    for (const std::string &name : entryNames(sourceFd)) {
        struct stat st {
        }, copy{};
        if (isHidden(name) || ::fstatat(sourceFd, name.c_str(), &st, 0) != 0)
            continue;
        const DirectoryId id{st.st_dev, st.st_ino};
        if (!S_ISREG(st.st_mode) &&
            (!S_ISDIR(st.st_mode) ||
             std::find(ancestors.begin(), ancestors.end(), id) != ancestors.end()))
            continue; // never copied
        if (::fstatat(copyFd, name.c_str(), &copy, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        ++matched;
        if (S_ISREG(st.st_mode)) {
            if (!sameCopy(st, copy))
                return false;
            continue;
        }
        if (!S_ISDIR(copy.st_mode) || (copy.st_mode & 07777) != (st.st_mode & 0777))
            return false;
        const Fd source(::openat(sourceFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const Fd inCopy = openDirectoryAt(copyFd, name);
        if (!source.valid() || !inCopy.valid())
            return false;
        ancestors.push_back(id);
        const bool same = sameEntries(source.get(), inCopy.get(), ancestors);
        ancestors.pop_back();
        if (!same)
            return false;
    }
    return matched == copied.size();
}

core::Status cloneEntry(int sourceFd, const std::string &name, int targetFd,
                        const QString &targetPath) {
    struct stat st {};
    if (::fstatat(sourceFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    const QString to = childPath(targetPath, name);
    if (!S_ISDIR(st.st_mode)) {
        if (::linkat(sourceFd, name.c_str(), targetFd, name.c_str(), 0) != 0)
            return copyFailed(to, to);
        return {};
    }
    Fd source = openDirectoryAt(sourceFd, name);
    Fd made = makeDirectoryAt(targetFd, name, 0700);
    if (!source.valid() || !made.valid())
        return createFailed(to);
    for (const std::string &child : entryNames(source.get())) {
        if (const core::Status cloned = cloneEntry(source.get(), child, made.get(), to); !cloned)
            return cloned;
    }
    // Only root may hand a directory to another owner; anyone else keeps it.
    if ((::fchown(made.get(), st.st_uid, st.st_gid) != 0 && errno != EPERM) ||
        ::fchmod(made.get(), st.st_mode & 07777) != 0)
        return createFailed(to);
    return {};
}

} // namespace

std::vector<std::string> entryNames(int dirFd) {
    std::vector<std::string> names;
    // A description of its own: reading must not move dirFd's position.
    const int fd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return names;
    DIR *dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return names;
    }
    while (const dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    return names;
}

bool isHidden(const std::string &name) {
    return !name.empty() && name.front() == '.';
}

bool existsAt(int dirFd, const std::string &name) {
    struct stat st {};
    return ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

Fd openDirectoryAt(int dirFd, const std::string &name) {
    return Fd(::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Fd makeDirectoryAt(int dirFd, const std::string &name, mode_t mode) {
    if (::mkdirat(dirFd, name.c_str(), 0700) != 0)
        return Fd();
    Fd made = openDirectoryAt(dirFd, name);
    if (made.valid() && ::fchmod(made.get(), mode) != 0)
        return Fd();
    return made;
}

bool removeTreeAt(int dirFd, const std::string &name) {
    struct stat st {};
    if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(st.st_mode))
        return ::unlinkat(dirFd, name.c_str(), 0) == 0 || errno == ENOENT;
    Fd dir = openDirectoryAt(dirFd, name);
    if (!dir.valid())
        return false;
    // Without write permission even the owner cannot empty a directory
    // (root can); it is going away, so its mode no longer matters.
    if (!(st.st_mode & S_IWUSR) && st.st_uid == ::geteuid())
        ::fchmod(dir.get(), st.st_mode | S_IRWXU);
    bool removed = true;
    for (const std::string &child : entryNames(dir.get()))
        removed = removeTreeAt(dir.get(), child) && removed;
    return removed && (::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

core::Status copyVisibleEntries(int sourceFd, const QString &sourcePath, int targetFd,
                                const QString &targetPath, int reuseFd) {
    struct stat st {};
    if (::fstat(sourceFd, &st) != 0)
        return copyFailed(sourcePath, targetPath);
    Ancestors ancestors{{st.st_dev, st.st_ino}};
    return copyEntries(sourceFd, sourcePath, targetFd, targetPath, reuseFd, ancestors);
}

bool isCurrentCopy(int sourceFd, int copyFd) {
    struct stat source {
    }, copy{};
    if (::fstat(sourceFd, &source) != 0 || ::fstat(copyFd, &copy) != 0 ||
        (copy.st_mode & 07777) != (source.st_mode & 0777))
        return false;
    Ancestors ancestors{{source.st_dev, source.st_ino}};
    return sameEntries(sourceFd, copyFd, ancestors);
}

core::Status cloneHiddenEntries(int sourceFd, int targetFd, const QString &targetPath) {
    for (const std::string &name : entryNames(sourceFd)) {
        if (!isHidden(name))
            continue;
        if (const core::Status cloned = cloneEntry(sourceFd, name, targetFd, targetPath); !cloned)
            return cloned;
    }
    return {};
}

QString childPath(const QString &dir, const std::string &name) {
    return dir + QLatin1Char('/') + QFile::decodeName(QByteArray::fromStdString(name));
}

core::Error copyFailed(const QString &source, const QString &target) {
    return core::failure(QStringLiteral("failed to copy %1 to %2").arg(source, target));
}

core::Error createFailed(const QString &path) {
    return core::failure(QStringLiteral("failed to create directory: %1").arg(path));
}

} // namespace kelvane::storage
