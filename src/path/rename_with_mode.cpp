#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "internal/access_attributes.h"
#include "internal/errno_saver.h"
#include "internal/fs_rules.h"
#include "internal/held_rename.h"
#include "internal/safe_open.h"
#include "internal/syslog.h"
#include "internal/test_hook.h"
#include "internal/unique_fd.h"
#include "telo/platform.h"
#include "telobackup/path/path_util.h"

// Path::renameWithMode and the held-source renames behind it and the scoped temporaries.

namespace TELO {
namespace Backup {

using internal::UniqueFd;

namespace {

// The log lines keep the source name of the file this code was first part of.
constexpr char kLogSource[] = "path/path_util";

using internal::HeldSource;

mode_t currentUmask() {
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}

int chownHeld(int fd, uid_t uid, gid_t gid) {
    return fchownat(fd, "", uid, gid, AT_EMPTY_PATH);
}

bool sameInode(const struct stat64 &a, const struct stat64 &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// 1 when `name` in the source's directory is the held file, 0 when it is another, -1 with errno
// when either cannot be examined.
int nameHoldsSource(const HeldSource &source, const std::string &name) {
    struct stat64 held, named;
    if (fstat64(source.fd, &held) != 0 ||
        fstatat64(source.dirFd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return -1;
    }
    return sameInode(held, named) ? 1 : 0;
}

// The rename itself, between the two checks of the held source: false with errno set (ESTALE
// when the source's name, or afterwards the destination, is another file). `nameGone` is set
// whenever the source's name no longer holds the caller's file: swapped, or moved.
bool checkedRename(const HeldSource &source, bool &nameGone) {
    nameGone = false;
    if (source.fd < 0) {
        errno = source.openErrno;
        return false;
    }
    internal::runTestHook(internal::HookPoint::kBeforeTempCheck, source.dst.c_str());
    int holds = nameHoldsSource(source, source.srcName);
    if (holds < 0) return false;
    if (holds == 0) {
        nameGone = true;
        errno = ESTALE;
        return false;
    }
    internal::runTestHook(internal::HookPoint::kBeforeTempRename, source.dst.c_str());
    if (renameat(source.dirFd, source.srcName.c_str(), source.dirFd, source.dstName.c_str()) != 0) {
        return false;
    }
    nameGone = true;
    // Swapped between the check and the rename: something else was moved into place. A check
    // that cannot be made fails too, as nothing says what was installed.
    holds = nameHoldsSource(source, source.dstName);
    if (holds == 0) errno = ESTALE;
    return holds == 1;
}

// The access ACL and user attributes of the file about to be replaced, read through a
// descriptor of it; none when the name no longer holds the file examined as `old`.
bool readReplacedAttributes(const HeldSource &source, const struct stat64 &old,
                            internal::AccessAttributes &attributes) {
    UniqueFd replaced(
        openat(source.dirFd, source.dstName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat64 st;
    if (!replaced) return errno == ENOENT;
    if (fstat64(replaced.get(), &st) != 0) return false;
    if (!sameInode(st, old)) return true;
    return internal::readAccessAttributes(replaced.get(), attributes);
}

// Gives the source the owner and permission bits of the file it is about to replace, through
// its descriptor, so that the replacement is never visible with the writer's attributes. Logs
// like the post-rename steps. A source of another kind is left to the rename, which reports it.
bool takeOverAttributes(const HeldSource &source, const struct stat64 &old) {
    struct stat64 current;
    if (source.fd >= 0 && fstat64(source.fd, &current) != 0) {
        TELO_LOG_ERR("lstat failed, %m [%s]", source.src.c_str());
        return false;
    }
    if (source.fd < 0 || (current.st_mode & S_IFMT) != (old.st_mode & S_IFMT)) return true;
    // The user attributes go first, while the source is still the writer's own to change; the
    // ACL last, as it sets the group bits that the chmod would.
    internal::AccessAttributes attributes;
    if (!readReplacedAttributes(source, old, attributes) ||
        !internal::writeUserAttributes(source.fd, attributes)) {
        TELO_LOG_ERR("Failed to copy ACL from [%s] to [%s]", source.dst.c_str(),
                     source.src.c_str());
        return false;
    }
    if ((current.st_uid != old.st_uid || current.st_gid != old.st_gid) &&
        chownHeld(source.fd, old.st_uid, old.st_gid) != 0) {
        TELO_LOG_ERR("chown failed %m, [%s]", source.dst.c_str());
        return false;
    }
    if (internal::chmodHeld(source.fd, old.st_mode & 0777) != 0) {
        TELO_LOG_ERR("chmod failed %m, [%s]", source.dst.c_str());
        return false;
    }
    if (!internal::writeAcl(source.fd, attributes)) {
        TELO_LOG_ERR("Failed to copy ACL from [%s] to [%s]", source.dst.c_str(),
                     source.src.c_str());
        return false;
    }
    return true;
}

bool replaceExisting(const HeldSource &source, const struct stat64 &old, bool &nameGone) {
    const char *dst = source.dst.c_str();
    if (TELOACLIsSupport(dst, -1, 2)) {
        if (TELOACLCopy(dst, source.src.c_str()) < 0 ||
            TELOACLArchiveCopy(dst, source.src.c_str()) < 0) {
            TELO_LOG_ERR("Failed to copy ACL from [%s] to [%s]", dst, source.src.c_str());
            return false;
        }
        if (!checkedRename(source, nameGone)) {
            TELO_LOG_ERR("rename failed, %m [%s]", dst);
            return false;
        }
        return true;
    }
    if (!takeOverAttributes(source, old)) return false;
    if (!checkedRename(source, nameGone)) {
        TELO_LOG_ERR("rename failed, %m [%s]", dst);
        return false;
    }
    // Only the file that was renamed is touched from here on, through its descriptor.
    struct stat64 now;
    if (fstat64(source.fd, &now) != 0) {
        TELO_LOG_ERR("lstat failed, %m [%s]", dst);
        return false;
    }
    if (now.st_mode != old.st_mode && internal::chmodHeld(source.fd, old.st_mode & 0777) != 0) {
        TELO_LOG_ERR("chmod failed %m, [%s]", dst);
        return false;
    }
    if (now.st_uid == old.st_uid && now.st_gid == old.st_gid) return true;
    if (chownHeld(source.fd, old.st_uid, old.st_gid) != 0) {
        TELO_LOG_ERR("chown failed %m, [%s]", dst);
        return false;
    }
    return true;
}

bool placeNew(const HeldSource &source, bool &nameGone) {
    const char *dst = source.dst.c_str();
    std::string parent = Path::dirname(source.dst);
    if (parent.empty()) {
        TELO_LOG_ERR("invalid dirname, %m");
        return false;
    }
    if (TELOACLIsSupport(parent.c_str(), -1, 2)) {
        if (!checkedRename(source, nameGone)) {
            TELO_LOG_ERR("rename failed %m [%s]", dst);
            return false;
        }
        if (TELOACLResetInherit(dst) == 0) return true;
        TELO_LOG_ERR("reset acl inherit failed");
        return false;
    }
    if (!checkedRename(source, nameGone)) {
        TELO_LOG_ERR("rename failed %m, [%s]", dst);
        return false;
    }
    struct stat64 st;
    if (fstat64(source.fd, &st) != 0) {
        TELO_LOG_ERR("lstat failed %m, [%s]", dst);
        return false;
    }
    mode_t mask = currentUmask();
    mode_t wanted;
    if (S_ISDIR(st.st_mode)) {
        wanted = 0777 & ~mask;
    } else if (S_ISLNK(st.st_mode)) {
        return true;
    } else {
        wanted = 0666 & ~mask;
        // The whole mode word, type bits included, is compared: a regular file always gets the
        // chmod below.
        if (st.st_mode == wanted) return true;
    }
    if (internal::chmodHeld(source.fd, wanted) == 0) return true;
    if (internal::chmodRefusalExpected(errno, source.dst)) return true;
    TELO_LOG_ERR("chmod failed %m, [%s]", dst);
    return false;
}

}  // namespace

namespace internal {

bool renameHeldWithMode(const HeldSource &source, bool &nameGone) {
    nameGone = false;
    int entryErrno = errno;
    struct stat64 old;
    if (fstatat64(source.dirFd, source.dstName.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0) {
        // A symbolic link's own attributes mean nothing for what replaces it (its mode would
        // make the new file world-writable): it is replaced like a new name.
        if (!S_ISLNK(old.st_mode)) return replaceExisting(source, old, nameGone);
    } else if (errno != ENOENT) {
        return false;
    }
    errno = entryErrno;
    return placeNew(source, nameGone);
}

bool renameHeld(const HeldSource &source, bool &nameGone) {
    return checkedRename(source, nameGone);
}

}  // namespace internal

bool Path::renameWithMode(const std::string &src, const std::string &dst) {
    // The source is held from here on: nothing after this open acts on its name but the rename.
    HeldSource source;
    UniqueFd fd;
    {
        internal::ErrnoSaver keep;  // a failed open is reported by the rename, not here
        fd.reset(open(src.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        source.openErrno = errno;
    }
    source.fd = fd.get();
    source.srcName = source.src = src;
    source.dstName = source.dst = dst;
    bool nameGone;
    return internal::renameHeldWithMode(source, nameGone);
}

}  // namespace Backup
}  // namespace TELO
