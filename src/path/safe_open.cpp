#include "internal/safe_open.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <deque>
#include <vector>

#include "internal/errno_saver.h"
#include "internal/fs_rules.h"
#include "telobackup/path/path_util.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// Symbolic links one open may follow, as the kernel allows.
constexpr int kMaxLinks = 40;

// A link target that fills this buffer is refused (ENAMETOOLONG): PATH_MAX, the longest path
// the kernel would resolve.
constexpr size_t kLinkTargetSize = PATH_MAX;

int openat2Call(int dirFd, const char *name, int flags, mode_t mode, uint64_t resolve) {
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = resolve;
    return static_cast<int>(syscall(SYS_openat2, dirFd, name, &how, sizeof(how)));
}

// The components of `path`, without empty ones and ".".
std::deque<std::string> componentsOf(const std::string &path) {
    std::deque<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        std::string part = path.substr(start, slash - start);
        if (!part.empty() && part != ".") parts.push_back(std::move(part));
        start = slash + 1;
    }
    return parts;
}

bool sameInode(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Resolves a configuration path one component at a time, following only trusted links.
class ConfigPathWalk {
  public:
    ConfigPathWalk(const std::string &path, int flags, mode_t mode)
        : todo_(componentsOf(path)),
          flags_(flags | O_CLOEXEC | O_NOFOLLOW),
          mode_(mode),
          original_(path) {
        bool absolute = !path.empty() && path[0] == '/';
        resolved_ = absolute ? "/" : "";
        cur_.reset(open(absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    bool run(ConfigFile &out) {
        if (!cur_) return false;
        while (!todo_.empty()) {
            std::string part = std::move(todo_.front());
            todo_.pop_front();
            bool done = todo_.empty() && part != "..";
            if (!(done ? openFile(part, out) : enter(part))) return false;
            if (done && out.fd) return true;
        }
        // The path names a directory.
        errno = EISDIR;
        return false;
    }

  private:
    struct PendingLink {
        uid_t owner;
        size_t remaining;  // components left when its target is reached
    };

    // Steps into directory `part`, or follows the link there.
    bool enter(const std::string &part) {
        UniqueFd next(openat(cur_.get(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat st;
        if (!next || fstat(next.get(), &st) != 0) return false;
        if (S_ISLNK(st.st_mode)) return follow(next.get());
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return false;
        }
        cur_ = std::move(next);
        resolved_ = Path::join(resolved_, part);
        return reached(st.st_uid);
    }

    // Opens the last component `part` in the current directory; a link there is followed (and
    // `out.fd` stays closed).
    bool openFile(const std::string &part, ConfigFile &out) {
        out.name = part;
        out.path = followed_ ? Path::join(resolved_, part) : original_;
        if (pending_.empty()) {
            out.fd.reset(openat(cur_.get(), part.c_str(), flags_, mode_));
            if (!out.fd && errno == ELOOP) return followAt(part);
            return finish(out);
        }
        // Through a link: the rule is checked on what is there before it is opened, and on the
        // caller, who would own it, when it is missing.
        UniqueFd probe(openat(cur_.get(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat seen;
        if (!probe) {
            if (errno != ENOENT || !reached(geteuid())) return false;
            errno = ENOENT;
            if ((flags_ & O_CREAT) == 0) return finish(out);
        } else {
            if (fstat(probe.get(), &seen) != 0) return false;
            if (S_ISLNK(seen.st_mode)) return follow(probe.get());
            if (!reached(seen.st_uid)) return false;
        }
        out.fd.reset(openat(cur_.get(), part.c_str(), flags_, mode_));
        struct stat opened;
        if (out.fd && probe && (fstat(out.fd.get(), &opened) != 0 || !sameInode(seen, opened))) {
            out.fd.reset();
            errno = ESTALE;  // swapped between the check and the open
        }
        return finish(out);
    }

    // The directory is handed out also when only the file is missing.
    bool finish(ConfigFile &out) {
        ErrnoSaver keep;
        if (out.fd || keep.value() == ENOENT) out.dir = std::move(cur_);
        return static_cast<bool>(out.fd);
    }

    bool followAt(const std::string &part) {
        UniqueFd link(openat(cur_.get(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!link) return false;
        return follow(link.get());
    }

    // Queues the target of the link `linkFd` (in the current directory) in place of it.
    bool follow(int linkFd) {
        struct stat st;
        char target[kLinkTargetSize];
        if (++links_ > kMaxLinks) {
            errno = ELOOP;
            return false;
        }
        if (fstat(linkFd, &st) != 0) return false;
        ssize_t length = readlinkat(linkFd, "", target, sizeof(target));
        if (length < 0) return false;
        if (length == 0 || static_cast<size_t>(length) == sizeof(target)) {
            errno = length == 0 ? ENOENT : ENAMETOOLONG;
            return false;
        }
        std::string text(target, static_cast<size_t>(length));
        pending_.push_back({st.st_uid, todo_.size()});
        followed_ = true;
        if (text[0] == '/') {
            cur_.reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
            resolved_ = "/";
            if (!cur_) return false;
        }
        std::deque<std::string> parts = componentsOf(text);
        todo_.insert(todo_.begin(), parts.begin(), parts.end());
        // A target of "/" or "." is reached at once.
        return todo_.size() > pending_.back().remaining || reachedDirectory();
    }

    bool reachedDirectory() {
        struct stat st;
        return fstat(cur_.get(), &st) == 0 && reached(st.st_uid);
    }

    // Checks every link whose target is now reached, owned by `owner`.
    bool reached(uid_t owner) {
        while (!pending_.empty() && pending_.back().remaining == todo_.size()) {
            uid_t linkOwner = pending_.back().owner;
            if (linkOwner != 0 && linkOwner != geteuid() && linkOwner != owner) {
                errno = EPERM;
                return false;
            }
            pending_.pop_back();
        }
        return true;
    }

    std::deque<std::string> todo_;
    std::vector<PendingLink> pending_;
    UniqueFd cur_;
    int flags_;
    mode_t mode_;
    int links_ = 0;
    bool followed_ = false;
    std::string original_;
    std::string resolved_;
};

}  // namespace

int openBeneath(int dirFd, const std::string &name, int flags, mode_t mode) {
    int fd = openat2Call(dirFd, name.c_str(), flags | O_NOFOLLOW, mode,
                         RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (fd >= 0 || errno != ENOSYS) return fd;
    return openBeneathByWalk(dirFd, name, flags, mode);
}

int openBeneathByWalk(int dirFd, const std::string &name, int flags, mode_t mode) {
    if (!name.empty() && name[0] == '/') {
        errno = EXDEV;
        return -1;
    }
    std::deque<std::string> parts = componentsOf(name);
    if (parts.empty()) {
        errno = name.empty() ? ENOENT : EISDIR;
        return -1;
    }
    std::string last = std::move(parts.back());
    parts.pop_back();
    std::vector<UniqueFd> entered;  // the directories below `dirFd` walked into
    auto current = [&] { return entered.empty() ? dirFd : entered.back().get(); };
    for (const std::string &part : parts) {
        if (part == "..") {
            if (entered.empty()) {
                errno = EXDEV;
                return -1;
            }
            entered.pop_back();
            continue;
        }
        struct stat st;
        if (fstatat(current(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
        if (S_ISLNK(st.st_mode)) {
            errno = ELOOP;
            return -1;
        }
        UniqueFd next(
            openat(current(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next) return -1;
        entered.push_back(std::move(next));
    }
    if (last == "..") {
        errno = entered.empty() ? EXDEV : EISDIR;
        return -1;
    }
    return openat(current(), last.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
}

namespace {

bool openConfigFileAnyKind(const std::string &path, int flags, mode_t mode, ConfigFile &out) {
    out = ConfigFile();
    if (path.empty()) {
        errno = ENOENT;
        return false;
    }
    // Most paths hold no link at all: two opens settle them.
    std::string base = Path::basename(path);
    if (path.back() != '/' && base != "/" && base != "." && base != "..") {
        UniqueFd dir(openat2Call(AT_FDCWD, Path::dirname(path).c_str(), O_PATH | O_DIRECTORY, 0,
                                 RESOLVE_NO_SYMLINKS));
        if (dir) {
            out.fd.reset(openat(dir.get(), base.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
            if (out.fd || errno != ELOOP) {
                ErrnoSaver keep;
                if (out.fd || keep.value() == ENOENT) {
                    out.dir = std::move(dir);
                    out.name = base;
                    out.path = path;
                }
                return static_cast<bool>(out.fd);
            }
        } else if (errno != ELOOP && errno != ENOSYS && errno != EPERM) {
            return false;
        }
    }
    ConfigPathWalk walk(path, flags, mode);
    return walk.run(out);
}

}  // namespace

bool openConfigFile(const std::string &path, int flags, mode_t mode, ConfigFile &out) {
    // Non-blocking, so that opening a FIFO returns at once; it is refused below.
    if (!openConfigFileAnyKind(path, flags | O_NONBLOCK, mode, out)) return false;
    struct stat st;
    int error = 0;
    if (fstat(out.fd.get(), &st) != 0) {
        error = errno;
    } else if (!S_ISREG(st.st_mode)) {
        error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    } else if ((flags & O_NONBLOCK) == 0) {
        int now = fcntl(out.fd.get(), F_GETFL);
        if (now < 0 || fcntl(out.fd.get(), F_SETFL, now & ~O_NONBLOCK) != 0) error = errno;
    }
    if (error == 0) return true;
    out = ConfigFile();
    errno = error;
    return false;
}

int chmodHeld(int fd, mode_t mode) {
    if (fchmod(fd, mode) == 0) return 0;
    if (errno != EBADF) return -1;
    char procPath[kProcFdPathSize];
    snprintf(procPath, sizeof(procPath), "/proc/self/fd/%d", fd);
    return chmod(procPath, mode);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
