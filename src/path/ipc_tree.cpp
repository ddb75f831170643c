#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "internal/fs_rules.h"
#include "internal/safe_open.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "telobackup/path/path_util.h"

// The IPC tree under /tmp: its sub-directories and the lock files beneath "lock".

namespace TELO {
namespace Backup {

using internal::UniqueFd;

namespace {

// The log lines keep the source name of the file this code was first part of.
constexpr char kLogSource[] = "path/path_util";
constexpr char kIpcTempPath[] = "/tmp/telobackup";
constexpr mode_t kIpcTempMode = 0755;
constexpr mode_t kLockFileMode = 0666;

}  // namespace

std::string Path::getIpcTempPath() {
    return kIpcTempPath;
}

namespace {

// Opens the existing directory `name` under `parentFd` without following a link there. A
// directory the caller may not read is opened as a path descriptor instead.
UniqueFd openDirNoFollow(int parentFd, const char *name) {
    UniqueFd fd(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd && errno == EACCES) {
        fd.reset(openat(parentFd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return fd;
}

// Makes sure `parentFd`/`name` is a directory of the caller (or root) with exactly `mode`,
// creating it when missing, and returns a descriptor of it. `path` names it in log lines.
UniqueFd ensureOwnedDir(int parentFd, const char *name, const std::string &path, mode_t mode) {
    UniqueFd fd = openDirNoFollow(parentFd, name);
    if (!fd && errno == ENOENT) {
        if (mkdirat(parentFd, name, mode) != 0 && errno != EEXIST) {
            TELO_LOG_ERR("mkdir %s path failed. %m", path.c_str());
            return UniqueFd();
        }
        fd = openDirNoFollow(parentFd, name);
    }
    struct stat st;
    if (fd && fstat(fd.get(), &st) != 0) fd.reset();
    if (fd && (st.st_uid != geteuid() && st.st_uid != 0)) {
        fd.reset();
        errno = EPERM;
    }
    if (fd && (st.st_mode & 07777) != mode && internal::chmodHeld(fd.get(), mode) != 0) {
        fd.reset();
    }
    if (!fd) TELO_LOG_ERR("chmod %s path failed. %m", path.c_str());
    return fd;
}

// The sub-directory `name` of the IPC tree, made safe as createIpcTempPath describes.
UniqueFd openIpcSubdir(const std::string &name, unsigned int mode, std::string &path) {
    // "." and ".." would name the tree itself or /tmp, whose modes are not ours to force.
    if (!internal::isPlainName(name)) {
        errno = EINVAL;
        TELO_LOG_ERR("bad %s name.", name.c_str());
        return UniqueFd();
    }
    UniqueFd root = ensureOwnedDir(AT_FDCWD, kIpcTempPath, kIpcTempPath, kIpcTempMode);
    if (!root) return root;
    path = Path::join(kIpcTempPath, name);
    return ensureOwnedDir(root.get(), name.c_str(), path, mode);
}

}  // namespace

std::string Path::createIpcTempPath(const std::string &name, unsigned int mode) {
    std::string path;
    UniqueFd dir = openIpcSubdir(name, mode, path);
    return dir ? path : std::string();
}

namespace {

constexpr char kLockDirName[] = "lock";
constexpr mode_t kLockDirMode = 0770;

const std::string &lockDirPath() {
    static const std::string *path = new std::string(Path::join(kIpcTempPath, kLockDirName));
    return *path;
}

// The lock directory as last validated from the root, kept open so that a lock does not walk
// and check the whole tree again. While it is held its inode cannot be reused, so when the path
// still names the same device and inode, with an owner and mode the validation accepts, it is
// the same directory: anything else (a removed and re-created tree, another /tmp in a private
// mount namespace, a changed owner or mode) is validated again from the root, and the new
// directory takes the old one's place. The descriptor itself is not checked on every call,
// which would cost a third more: one closed behind our back is noticed when opening beneath
// it fails. A link planted on the way can at most lead the check to
// this same directory, and nothing is opened through it: lock files are opened beneath the
// held descriptor.
//
// Threads share it without a lock: the descriptor number, once set, is only ever replaced with
// dup3, so whatever a thread opens through it is a directory that was validated. It is never
// closed, so that a lock can still be taken from a late exit handler.
class HeldLockDir {
  public:
    // The held directory when the path still names it (its status in `named`), else -1.
    int current(struct stat &named) const {
        int fd = fd_.load(std::memory_order_acquire);
        if (fd < 0) return -1;
        if (fstatat(AT_FDCWD, lockDirPath().c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) return -1;
        if (!S_ISDIR(named.st_mode) || (named.st_mode & 07777) != kLockDirMode ||
            named.st_dev != dev_.load(std::memory_order_acquire) ||
            named.st_ino != ino_.load(std::memory_order_acquire)) {
            return -1;
        }
        // A directory of root's serves every caller; another owner's only that owner.
        if (named.st_uid != 0 && named.st_uid != geteuid()) return -1;
        return fd;
    }

    // Holds the freshly validated directory `dirFd`, whose status is `st`, from now on (a copy
    // of it). A failure only leaves the next call to validate again.
    void hold(int dirFd, const struct stat &st) {
        int held = fd_.load(std::memory_order_acquire);
        if (held >= 0 && holdsRecorded(held)) {
            // Replaced in place: a thread that read the number meanwhile gets one of the two.
            if (dup3(dirFd, held, O_CLOEXEC) < 0) return;
        } else {
            // Nothing held yet, or the caller closed our descriptor and the number may now be
            // theirs: a new number is taken, the old one is left alone.
            int copy = fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
            if (copy < 0) return;
            if (!fd_.compare_exchange_strong(held, copy, std::memory_order_acq_rel)) {
                close(copy);  // another thread got there first and records its own
                return;
            }
        }
        dev_.store(st.st_dev, std::memory_order_release);
        ino_.store(st.st_ino, std::memory_order_release);
    }

  private:
    // True when descriptor `fd` is still the directory recorded.
    bool holdsRecorded(int fd) const {
        struct stat st;
        return fstat(fd, &st) == 0 && st.st_dev == dev_.load(std::memory_order_acquire) &&
               st.st_ino == ino_.load(std::memory_order_acquire);
    }

    std::atomic<int> fd_{-1};
    std::atomic<dev_t> dev_{0};
    std::atomic<ino_t> ino_{0};
};

HeldLockDir &heldLockDir() {
    static HeldLockDir *held = new HeldLockDir;
    return *held;
}

// True when the lock directory whose status is `dir` (its mode checked) takes entries from
// root alone.
bool onlyRootAddsEntries(const struct stat &dir) {
    return dir.st_uid == 0 && dir.st_gid == 0;
}

// Opens the lock file `name` beneath the lock directory `dirFd`, creating it when missing.
// `onlyRootAddsEntries` tells that the directory is root's and only root may add entries.
int openLockFile(int dirFd, bool onlyRootAddsEntries, const std::string &name) {
    // The name stays beneath the lock directory, and only a file this call made is given its
    // mode: a name that led elsewhere must not get anything of ours chmodded or created.
    bool created = false;
    UniqueFd fd(internal::openBeneath(dirFd, name, O_RDWR, 0));
    if (!fd && errno == ENOENT) {
        created = true;
        fd.reset(internal::openBeneath(dirFd, name, O_RDWR | O_CREAT | O_EXCL, kLockFileMode));
        if (!fd && errno == EEXIST) {
            // Made by another process in between.
            created = false;
            fd.reset(internal::openBeneath(dirFd, name, O_RDWR, 0));
        }
    }
    if (!fd) return -1;
    // Only those who may add entries to the directory can have put something other than a
    // regular file there: when that is root alone, there is nothing to check.
    if (!created && onlyRootAddsEntries) return fd.release();
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    // The umask must not lock other users out of a shared lock file.
    if (created && (st.st_mode & 0777) != kLockFileMode) fchmod(fd.get(), kLockFileMode);
    return fd.release();
}

}  // namespace

int Path::createIpcLockFile(const std::string &name) {
    HeldLockDir &held = heldLockDir();
    struct stat dirStatus;
    int dirFd = held.current(dirStatus);
    if (dirFd >= 0) {
        int fd = openLockFile(dirFd, onlyRootAddsEntries(dirStatus), name);
        // EBADF or ENOTDIR: the caller closed our descriptor, and its number is free or another
        // file's now; the check from the root below holds a new one.
        if (fd >= 0 || (errno != EBADF && errno != ENOTDIR)) return fd;
    }
    std::string dirPath;
    UniqueFd dir = openIpcSubdir(kLockDirName, kLockDirMode, dirPath);
    if (!dir) return -1;
    if (fstat(dir.get(), &dirStatus) != 0) return -1;
    held.hold(dir.get(), dirStatus);
    return openLockFile(dir.get(), onlyRootAddsEntries(dirStatus), name);
}

}  // namespace Backup
}  // namespace TELO
