#include "telobackup/path/path_util.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "internal/access_attributes.h"
#include "internal/held_rename.h"
#include "internal/safe_open.h"
#include "internal/syslog.h"
#include "internal/test_hook.h"
#include "internal/tree_remover.h"
#include "internal/unique_fd.h"
#include "telo/platform.h"

// libgen.h maps basename to the POSIX flavour with a macro, which would rename Path::basename.
#undef basename

namespace TELO {
namespace Backup {

using internal::UniqueFd;

namespace {

constexpr char kLogSource[] = "path/path_util";
constexpr char kIpcTempPath[] = "/tmp/telobackup";
constexpr mode_t kIpcTempMode = 0755;
constexpr mode_t kLockFileMode = 0666;

const std::string kSeparator = "/";

struct FreeDeleter {
    void operator()(char *p) const { free(p); }
};

// A heap copy of `path` up to its first NUL byte, for the POSIX functions that modify it.
std::unique_ptr<char, FreeDeleter> heapCopy(const std::string &path) {
    std::unique_ptr<char, FreeDeleter> copy(strdup(path.c_str()));
    if (!copy) throw std::bad_alloc();
    return copy;
}

}  // namespace

// ---- Algebra ----------------------------------------------------------------------------------

std::string Path::join(const std::string &a, const std::string &b) {
    size_t leftEnd = a.find_last_not_of('/');
    size_t leftLength = leftEnd == std::string::npos ? 0 : leftEnd + 1;
    size_t rightStart = b.find_first_not_of('/');
    if (rightStart == std::string::npos) rightStart = b.size();
    if (b.compare(rightStart, 2, "./") == 0) rightStart += 2;
    if (b.compare(rightStart, std::string::npos, ".") == 0) rightStart = b.size();
    size_t rightLength = b.size() - rightStart;

    std::string result;
    if (leftLength > 0) {
        if (leftLength == 1 && a[0] == '.') return b.substr(rightStart);
        result.reserve(leftLength + 1 + rightLength);
        result.assign(a, 0, leftLength);
        if (rightLength > 0) {
            result += '/';
            result.append(b, rightStart, rightLength);
        }
        return result;
    }
    if (!a.empty() && a[0] == '/') {
        result.reserve(1 + rightLength);
        result += '/';
    }
    result.append(b, rightStart, rightLength);
    return result;
}

std::string Path::join(const std::string &a, const std::string &b, const std::string &c,
                       const std::string &d, const std::string &e, const std::string &f,
                       const std::string &g) {
    std::string result = join(join(a, b), c);
    for (const std::string *part : {&d, &e, &f, &g}) {
        if (!part->empty()) result = join(result, *part);
    }
    return result;
}

std::string Path::join(std::vector<std::string>::const_iterator first,
                       std::vector<std::string>::const_iterator last) {
    if (first == last) return std::string();
    std::string result = *first;
    for (++first; first != last; ++first) result = join(result, *first);
    return result;
}

std::string Path::join(const std::vector<std::string> &parts) {
    return join(parts.cbegin(), parts.cend());
}

bool Path::split(const std::string &path, std::vector<std::string> &out) {
    out.clear();
    if (path.empty()) return true;
    boost::algorithm::split(out, path, boost::is_any_of(kSeparator));
    if (out.front().empty()) out.front() = kSeparator;
    if (out.size() == 2 && out[0] == kSeparator && out[1].empty()) {
        out.pop_back();
    } else if (out.size() > 1 && out.back().empty()) {
        out.pop_back();
        out.back() += kSeparator;
    }
    return true;
}

std::string Path::token(const std::string &path, unsigned int index) {
    if (path.empty()) return std::string();
    if (index != 0) {
        std::vector<std::string> parts;
        split(path, parts);
        return index < parts.size() ? parts[index] : std::string();
    }
    if (path[0] == '/') return kSeparator;
    size_t slash = path.find('/');
    if (slash == std::string::npos || slash == path.size() - 1) return path;
    if (path.find_first_not_of('/', slash) == std::string::npos) return path.substr(0, slash + 1);
    return path.substr(0, slash);
}

std::string Path::common(const std::string &a, const std::string &b) {
    std::vector<std::string> left, right;
    split(a, left);
    split(b, right);
    auto stripTrailing = [](std::string &s) {
        size_t end = s.find_last_not_of('/');
        s.resize(end == std::string::npos ? 0 : end + 1);
    };
    size_t i = 0;
    for (; i < left.size() && i < right.size(); ++i) {
        if (i == left.size() - 1) stripTrailing(left[i]);
        if (i == right.size() - 1) stripTrailing(right[i]);
        if (left[i] != right[i]) break;
    }
    return join(left.cbegin(), left.cbegin() + static_cast<std::ptrdiff_t>(i));
}

std::string Path::relative(const std::string &path, const std::string &base) {
    if (base.empty()) return std::string();
    size_t end = base.find_last_not_of('/');
    size_t baseLength = end == std::string::npos ? 0 : end + 1;
    // The base is compared with exactly one "/" after it.
    if (path.size() < baseLength + 1 || path.compare(0, baseLength, base, 0, baseLength) != 0 ||
        path[baseLength] != '/') {
        return std::string();
    }
    return path.substr(baseLength + 1);
}

std::string Path::basename(const std::string &path) {
    auto copy = heapCopy(path);
    return std::string(__xpg_basename(copy.get()));
}

std::string Path::dirname(const std::string &path) {
    auto copy = heapCopy(path);
    return std::string(::dirname(copy.get()));
}

std::string Path::absPath(const std::string &path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[4095] = {};
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return std::string();
    return join(cwd, path);
}

// ---- Well-known locations ---------------------------------------------------------------------

std::string Path::getBinPath() {
    char buffer[4096] = {};
    if (readlink("/proc/self/exe", buffer, sizeof(buffer) - 1) < 0) return std::string();
    return std::string(buffer);
}

std::string Path::getLogPath() {
    const char *configured = getenv("TELO_LOGFILE");
    if (configured != nullptr) return configured;
    return join(dirname(getBinPath()), "Quarnix.log");
}

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

// chmod of what `fd` holds; an O_PATH descriptor is reached through /proc.
int chmodHeld(int fd, mode_t mode) {
    if (fchmod(fd, mode) == 0) return 0;
    if (errno != EBADF) return -1;
    char procPath[64];
    snprintf(procPath, sizeof(procPath), "/proc/self/fd/%d", fd);
    return chmod(procPath, mode);
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
    if (fd && (st.st_mode & 07777) != mode && chmodHeld(fd.get(), mode) != 0) {
        fd.reset();
    }
    if (!fd) TELO_LOG_ERR("chmod %s path failed. %m", path.c_str());
    return fd;
}

// The sub-directory `name` of the IPC tree, made safe as createIpcTempPath describes.
UniqueFd openIpcSubdir(const std::string &name, unsigned int mode, std::string &path) {
    // "." and ".." would name the tree itself or /tmp, whose modes are not ours to force.
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
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

// ---- Recursive removal ------------------------------------------------------------------------

bool removeAll(const std::string &path) {
    internal::TreeRemoval removal = internal::removeTree(path);
    // Nothing to examine (missing, or not reachable) counts as nothing to remove.
    if (!removal.failed) return true;
    errno = removal.failedErrno;
    if (removal.failedDirectory) {
        TELO_LOG_ERR("rmdir %s failed. %m", removal.failedPath.c_str());
    } else {
        TELO_LOG_ERR("unlink %s failed. %m", removal.failedPath.c_str());
    }
    // A directory left non-empty means one of its children could not be removed.
    errno = removal.failedErrno == ENOTEMPTY ? EACCES : removal.failedErrno;
    return false;
}

// ---- Replacing files --------------------------------------------------------------------------

namespace {

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
    if (chmodHeld(source.fd, old.st_mode & 0777) != 0) {
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
    if (now.st_mode != old.st_mode && chmodHeld(source.fd, old.st_mode & 0777) != 0) {
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
    if (chmodHeld(source.fd, wanted) == 0) return true;
    int chmodErrno = errno;
    if (chmodErrno == EPERM) {
        int fsType = TELOGetFSType(dst, 0);
        if (fsType == TELO_FS_FAT || fsType == TELO_FS_FOREIGN) return true;
    }
    errno = chmodErrno;
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
    int entryErrno = errno;
    UniqueFd fd(open(src.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    source.fd = fd.get();
    source.openErrno = errno;
    errno = entryErrno;
    source.srcName = source.src = src;
    source.dstName = source.dst = dst;
    bool nameGone;
    return internal::renameHeldWithMode(source, nameGone);
}

// ---- Share-rooted paths -----------------------------------------------------------------------

std::string ConfigPath::shareName(const std::string &path) {
    if (path.empty() || path[0] != '/') return std::string();
    size_t end = path.find('/', 1);
    if (end == std::string::npos) end = path.size();
    return path.substr(1, end - 1);
}

std::string ConfigPath::shareRelativePath(const std::string &path) {
    if (path.empty() || path[0] != '/') return std::string();
    size_t slash = path.find('/', 1);
    if (slash == std::string::npos || slash + 1 == path.size()) return std::string();
    return path.substr(slash + 1);
}

}  // namespace Backup
}  // namespace TELO
