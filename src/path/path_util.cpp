#include "telobackup/path/path_util.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "internal/syslog.h"
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
UniqueFd openDirNoFollow(int parentFd, const char *name, bool &pathOnly) {
    pathOnly = false;
    UniqueFd fd(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd && errno == EACCES) {
        pathOnly = true;
        fd.reset(openat(parentFd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return fd;
}

int chmodDescriptor(int fd, bool pathOnly, mode_t mode) {
    if (!pathOnly) return fchmod(fd, mode);
    char procPath[64];
    snprintf(procPath, sizeof(procPath), "/proc/self/fd/%d", fd);
    return chmod(procPath, mode);
}

// Makes sure `parentFd`/`name` is a directory of the caller (or root) with exactly `mode`,
// creating it when missing, and returns a descriptor of it. `path` names it in log lines.
UniqueFd ensureOwnedDir(int parentFd, const char *name, const std::string &path, mode_t mode) {
    bool pathOnly = false;
    UniqueFd fd = openDirNoFollow(parentFd, name, pathOnly);
    if (!fd && errno == ENOENT) {
        if (mkdirat(parentFd, name, mode) != 0 && errno != EEXIST) {
            TELO_LOG_ERR("mkdir %s path failed. %m", path.c_str());
            return UniqueFd();
        }
        fd = openDirNoFollow(parentFd, name, pathOnly);
    }
    struct stat st;
    if (fd && fstat(fd.get(), &st) != 0) fd.reset();
    if (fd && (st.st_uid != geteuid() && st.st_uid != 0)) {
        fd.reset();
        errno = EPERM;
    }
    if (fd && (st.st_mode & 07777) != mode && chmodDescriptor(fd.get(), pathOnly, mode) != 0) {
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

int Path::createIpcLockFile(const std::string &name) {
    std::string dirPath;
    UniqueFd dir = openIpcSubdir("lock", 0770, dirPath);
    if (!dir) return -1;
    UniqueFd fd(
        openat(dir.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockFileMode));
    if (!fd) return -1;
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    // The umask must not lock other users out of a shared lock file.
    if (st.st_uid == geteuid() && (st.st_mode & 0777) != kLockFileMode) {
        fchmod(fd.get(), kLockFileMode);
    }
    return fd.release();
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

mode_t currentUmask() {
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// Gives `src` the owner and permission bits of the file it is about to replace, so that the
// replacement is never visible with the writer's attributes. Logs like the post-rename steps.
// A source that is missing or of another kind is left to the rename, which reports it.
bool takeOverAttributes(const std::string &src, const std::string &dst, const struct stat64 &old) {
    struct stat64 current;
    if (lstat64(src.c_str(), &current) != 0 ||
        (current.st_mode & S_IFMT) != (old.st_mode & S_IFMT)) {
        return true;
    }
    if ((current.st_uid != old.st_uid || current.st_gid != old.st_gid) &&
        lchown(src.c_str(), old.st_uid, old.st_gid) != 0) {
        TELO_LOG_ERR("chown failed %m, [%s]", dst.c_str());
        return false;
    }
    if (!S_ISLNK(current.st_mode) && chmod(src.c_str(), old.st_mode & 0777) != 0) {
        TELO_LOG_ERR("chmod failed %m, [%s]", dst.c_str());
        return false;
    }
    return true;
}

bool replaceExisting(const std::string &src, const std::string &dst, const struct stat64 &old) {
    if (TELOACLIsSupport(dst.c_str(), -1, 2)) {
        if (TELOACLCopy(dst.c_str(), src.c_str()) < 0 ||
            TELOACLArchiveCopy(dst.c_str(), src.c_str()) < 0) {
            TELO_LOG_ERR("Failed to copy ACL from [%s] to [%s]", dst.c_str(), src.c_str());
            return false;
        }
        if (rename(src.c_str(), dst.c_str()) != 0) {
            TELO_LOG_ERR("rename failed, %m [%s]", dst.c_str());
            return false;
        }
        return true;
    }
    if (!takeOverAttributes(src, dst, old)) return false;
    if (rename(src.c_str(), dst.c_str()) != 0) {
        TELO_LOG_ERR("rename failed, %m [%s]", dst.c_str());
        return false;
    }
    struct stat64 now;
    if (lstat64(dst.c_str(), &now) != 0) {
        TELO_LOG_ERR("lstat failed, %m [%s]", dst.c_str());
        return false;
    }
    if (now.st_mode != old.st_mode && chmod(dst.c_str(), old.st_mode & 0777) != 0) {
        TELO_LOG_ERR("chmod failed %m, [%s]", dst.c_str());
        return false;
    }
    if (now.st_uid == old.st_uid && now.st_gid == old.st_gid) return true;
    if (chown(dst.c_str(), old.st_uid, old.st_gid) != 0) {
        TELO_LOG_ERR("chown failed %m, [%s]", dst.c_str());
        return false;
    }
    return true;
}

bool placeNew(const std::string &src, const std::string &dst) {
    std::string parent = Path::dirname(dst);
    if (parent.empty()) {
        TELO_LOG_ERR("invalid dirname, %m");
        return false;
    }
    if (TELOACLIsSupport(parent.c_str(), -1, 2)) {
        if (rename(src.c_str(), dst.c_str()) != 0) {
            TELO_LOG_ERR("rename failed %m [%s]", dst.c_str());
            return false;
        }
        if (TELOACLResetInherit(dst.c_str()) == 0) return true;
        TELO_LOG_ERR("reset acl inherit failed");
        return false;
    }
    if (rename(src.c_str(), dst.c_str()) != 0) {
        TELO_LOG_ERR("rename failed %m, [%s]", dst.c_str());
        return false;
    }
    struct stat64 st;
    if (lstat64(dst.c_str(), &st) != 0) {
        TELO_LOG_ERR("lstat failed %m, [%s]", dst.c_str());
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
    if (chmod(dst.c_str(), wanted) == 0) return true;
    int chmodErrno = errno;
    if (chmodErrno == EPERM) {
        int fsType = TELOGetFSType(dst.c_str(), 0);
        if (fsType == TELO_FS_FAT || fsType == TELO_FS_FOREIGN) return true;
    }
    errno = chmodErrno;
    TELO_LOG_ERR("chmod failed %m, [%s]", dst.c_str());
    return false;
}

}  // namespace

bool Path::renameWithMode(const std::string &src, const std::string &dst) {
    int entryErrno = errno;
    struct stat64 old;
    if (lstat64(dst.c_str(), &old) == 0) {
        // A symbolic link's own attributes mean nothing for what replaces it (its mode would
        // make the new file world-writable): it is replaced like a new name.
        if (!S_ISLNK(old.st_mode)) return replaceExisting(src, dst, old);
    } else if (errno != ENOENT) {
        return false;
    }
    errno = entryErrno;
    return placeNew(src, dst);
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
