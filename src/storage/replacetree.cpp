#include "storage/replacetree.h"

#include "storage/fd.h"
#include "storage/tree.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvane::storage {

namespace {

// Inside a tree that is swapped entry by entry: the new entries while they
// are copied, then once complete and synced (the point of no return), and
// the old entries on their way out.
const std::string staging = ".kelvane-staging";
const std::string ready = ".kelvane-ready";
const std::string retiring = ".kelvane-retiring";
const std::string retired = ".kelvane-retired";

// Beside a tree that is swapped whole: the new tree while it is built, and
// the old one after the exchange.
std::string besideName(const TreeLocation &where) {
    return "." + where.name + ".kelvane-staging";
}

bool isMountPoint(int parentFd, int treeFd) {
    struct statx parent {
    }, tree{};
    if (::statx(parentFd, "", AT_EMPTY_PATH, STATX_MNT_ID, &parent) != 0 ||
        ::statx(treeFd, "", AT_EMPTY_PATH, STATX_MNT_ID, &tree) != 0)
        return false;
    if ((parent.stx_mask & tree.stx_mask & STATX_MNT_ID) != 0)
        return parent.stx_mnt_id != tree.stx_mnt_id;
    return parent.stx_dev_major != tree.stx_dev_major || parent.stx_dev_minor != tree.stx_dev_minor;
}

bool moveVisibleEntries(int fromFd, int toFd) {
    bool moved = true;
    for (const std::string &name : entryNames(fromFd)) {
        if (!isHidden(name))
            moved = ::renameat(fromFd, name.c_str(), toFd, name.c_str()) == 0 && moved;
    }
    return moved;
}

// Past the point of no return: the old visible entries go aside, then the
// new ones come in. Every step can be repeated, so an interrupted run is
// completed by calling this again.
bool rollForward(int treeFd) {
    if (!existsAt(treeFd, retired)) {
        if (!existsAt(treeFd, retiring) && ::mkdirat(treeFd, retiring.c_str(), 0700) != 0)
            return false;
        Fd aside = openDirectoryAt(treeFd, retiring);
        if (!aside.valid() || !moveVisibleEntries(treeFd, aside.get()) ||
            ::renameat(treeFd, retiring.c_str(), treeFd, retired.c_str()) != 0)
            return false;
    }
    Fd incoming = openDirectoryAt(treeFd, ready);
    struct stat st {};
    if (!incoming.valid() || ::fstat(incoming.get(), &st) != 0)
        return false;
    for (const std::string &name : entryNames(incoming.get())) {
        // Only something created meanwhile can be in the way; it goes too.
        removeTreeAt(treeFd, name);
        if (::renameat(incoming.get(), name.c_str(), treeFd, name.c_str()) != 0)
            return false;
    }
    ::fchmod(treeFd, st.st_mode & 07777);
    ::fsync(treeFd);
    ::unlinkat(treeFd, ready.c_str(), AT_REMOVEDIR);
    return removeTreeAt(treeFd, retired);
}

void recoverInside(int treeFd) {
    removeTreeAt(treeFd, staging);
    if (existsAt(treeFd, ready)) {
        rollForward(treeFd);
        return;
    }
    removeTreeAt(treeFd, retiring);
    removeTreeAt(treeFd, retired);
}

core::Status fillAndSync(int stagingFd, int reuseFd, mode_t rootMode, const TreeFiller &fill,
                         const QString &path) {
    if (const core::Status filled = fill(stagingFd, reuseFd); !filled)
        return filled;
    // One sync of the finished tree stands for a sync of every file in it.
    if (::fchmod(stagingFd, rootMode) != 0 || ::syncfs(stagingFd) != 0)
        return createFailed(path);
    return {};
}

core::Status replaceInside(int treeFd, mode_t rootMode, const TreeFiller &fill,
                           const QString &path) {
    Fd built = makeDirectoryAt(treeFd, staging, 0700);
    if (!built.valid())
        return createFailed(path);
    core::Status status = fillAndSync(built.get(), treeFd, rootMode, fill, path);
    if (status && ::renameat(treeFd, staging.c_str(), treeFd, ready.c_str()) != 0)
        status = createFailed(path);
    if (!status) {
        removeTreeAt(treeFd, staging);
        return status;
    }
    return rollForward(treeFd) ? core::Status() : createFailed(path);
}

} // namespace

QString TreeLocation::path() const {
    return parentPath + QLatin1Char('/') + QFile::decodeName(QByteArray::fromStdString(name));
}

void recoverTree(const TreeLocation &where) {
    removeTreeAt(where.parentFd, besideName(where));
    Fd tree = openDirectoryAt(where.parentFd, where.name);
    if (tree.valid())
        recoverInside(tree.get());
}

core::Status replaceTree(const TreeLocation &where, mode_t rootMode, const TreeFiller &fill) {
    const QString path = where.path();
    const int parent = where.parentFd;
    recoverTree(where);
    Fd old = openDirectoryAt(parent, where.name);
    if (old.valid() && isMountPoint(parent, old.get()))
        return replaceInside(old.get(), rootMode, fill, path);

    const std::string beside = besideName(where);
    Fd built = makeDirectoryAt(parent, beside, 0700);
    if (!built.valid())
        return createFailed(path);
    const TreeFiller fillAndCarryHidden = [&](int stagingFd, int reuseFd) {
        if (const core::Status filled = fill(stagingFd, reuseFd); !filled)
            return filled;
        return old.valid() ? cloneHiddenEntries(old.get(), stagingFd, path) : core::Status();
    };
    core::Status status = fillAndSync(built.get(), old.get(), rootMode, fillAndCarryHidden, path);
    if (!status) {
        removeTreeAt(parent, beside);
        return status;
    }
    if (!old.valid()) {
        if (::renameat2(parent, beside.c_str(), parent, where.name.c_str(), RENAME_NOREPLACE) !=
                0 &&
            (errno != EINVAL ||
             ::renameat(parent, beside.c_str(), parent, where.name.c_str()) != 0)) {
            removeTreeAt(parent, beside);
            return createFailed(path);
        }
        ::fsync(parent);
        return {};
    }
    if (::renameat2(parent, beside.c_str(), parent, where.name.c_str(), RENAME_EXCHANGE) == 0) {
        ::fsync(parent);
        removeTreeAt(parent, beside); // the old tree now
        return {};
    }
    // No atomic exchange on this file system: finish entry by entry from inside.
    if (::renameat(parent, beside.c_str(), old.get(), ready.c_str()) != 0) {
        removeTreeAt(parent, beside);
        return createFailed(path);
    }
    return rollForward(old.get()) ? core::Status() : createFailed(path);
}

} // namespace kelvane::storage
