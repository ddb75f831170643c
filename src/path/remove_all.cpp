#include "path/remove_all.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "internal/syslog.h"
#include "internal/test_hook.h"
#include "internal/unique_fd.h"
#include "telobackup/path/path_util.h"

namespace TELO {
namespace Backup {

namespace {

// The log lines keep the source name of the file removeAll was first part of.
constexpr char kLogSource[] = "path/path_util";

}  // namespace

namespace internal {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A directory's inode and where it lives. A directory bound from elsewhere on the same file
// system has the tree's device but a mount of its own.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t mount = 0;
    bool knowsMount = false;

    bool sameInode(const Identity &other) const {
        return device == other.device && inode == other.inode;
    }
    bool samePlace(const Identity &other) const {
        return device == other.device && (!knowsMount || !other.knowsMount || mount == other.mount);
    }
};

bool identify(int fd, Identity &id) {
    struct statx stx;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &stx) == 0) {
        id.device = makedev(stx.stx_dev_major, stx.stx_dev_minor);
        id.inode = stx.stx_ino;
        id.mount = stx.stx_mnt_id;
        id.knowsMount = (stx.stx_mask & STATX_MNT_ID) != 0;
        return true;
    }
    struct stat64 st;
    if (fstat64(fd, &st) != 0) return false;
    id.device = st.st_dev;
    id.inode = st.st_ino;
    id.knowsMount = false;
    return true;
}

struct Level {
    std::string name;  // in the level above
    Identity id;
    DIR *stream = nullptr;  // null while given up
    size_t pathLength = 0;  // of the walk's path up to this level
    // Names that stay (failed, or another mount's), skipped when the level is listed again.
    std::unordered_set<std::string> kept;
};

class Remover {
  public:
    explicit Remover(TreeRemoval &result) : result_(result) {}
    ~Remover() {
        for (Level &level : levels_) {
            if (level.stream != nullptr) closedir(level.stream);
        }
    }
    Remover(const Remover &) = delete;
    Remover &operator=(const Remover &) = delete;

    void run(const std::string &top) {
        path_ = top;
        struct stat64 st;
        if (lstat64(top.c_str(), &st) != 0) {
            result_.topErrno = errno;
            return;
        }
        result_.examined = true;
        if (!S_ISDIR(st.st_mode)) {
            removeEntry(AT_FDCWD, top.c_str(), false);
            return;
        }
        UniqueFd fd(open(top.c_str(), kDirectoryFlags));
        Identity id;
        DIR *stream = fd && identify(fd.get(), id) ? fdopendir(fd.get()) : nullptr;
        if (stream == nullptr) {
            // Replaced since the lstat, or unreadable (removed like an empty directory).
            bool replaced = errno == ENOTDIR || errno == ELOOP;
            removeEntry(AT_FDCWD, top.c_str(), !replaced);
            return;
        }
        fd.release();
        levels_.push_back(Level{std::string(), id, stream, path_.size(), {}});
        while (!levels_.empty()) {
            size_t index = levels_.size() - 1;
            errno = 0;
            if (struct dirent64 *entry = readdir64(levels_[index].stream)) {
                const char *name = entry->d_name;
                if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                    continue;
                if (isKept(levels_[index], name)) continue;
                visit(index, name, entry->d_type);
            } else {
                finishLevel(index);
            }
        }
    }

  private:
    static bool isKept(const Level &level, const char *name) { return level.kept.count(name) != 0; }

    void setPath(size_t index, const char *name) {
        path_.resize(levels_[index].pathLength);
        path_.append("/").append(name);
    }

    // Removes one entry of level `index`: a non-directory at once, a directory by going down.
    void visit(size_t index, const char *name, unsigned char type) {
        setPath(index, name);
        int dirFd = dirfd(levels_[index].stream);
        bool directory = type == DT_DIR;
        if (type == DT_UNKNOWN) {
            struct stat64 st;
            directory =
                fstatat64(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
        }
        if (!directory) {
            if (unlinkat(dirFd, name, 0) == 0 || errno == ENOENT) return;
            // Turned into a directory since it was listed: go down into it instead. A file
            // bind-mounted here (EBUSY) belongs to another file system: not ours to remove.
            if (errno != EISDIR) {
                if (errno != EBUSY) record(false);
                levels_[index].kept.insert(name);
                return;
            }
        }
        UniqueFd child(openat(dirFd, name, kDirectoryFlags));
        Identity id;
        if (child && !identify(child.get(), id)) child.reset();
        if (!child) {
            if (errno == ENOENT) return;
            // Replaced by something else since it was listed: remove that instead. An
            // unreadable directory is removed like an empty one (which fails if it is not).
            bool replaced = errno == ENOTDIR || errno == ELOOP;
            if (!removeEntry(dirFd, name, !replaced)) levels_[index].kept.insert(name);
            return;
        }
        // A file system mounted here, or a directory bound here, is left alone, and so is its
        // mount point.
        if (!id.samePlace(levels_[0].id)) {
            levels_[index].kept.insert(name);
            return;
        }
        DIR *stream = fdopendir(child.get());
        if (stream == nullptr) {
            keepAfterFailure(index, name, true);
            return;
        }
        child.release();
        levels_.push_back(Level{name, id, stream, path_.size(), {}});
        giveUpOldestLevel();
        runTestHook(HookPoint::kDirectoryOpened, path_.c_str(), static_cast<int>(index + 1));
    }

    // Keeps the descriptor count bounded: the shallowest open level below the top closes.
    void giveUpOldestLevel() {
        if (levels_.size() - firstOpen_ + 1 <= kRemovalOpenLevels) return;
        closedir(levels_[firstOpen_].stream);
        levels_[firstOpen_].stream = nullptr;
        ++firstOpen_;
    }

    // Level `index` is listed to its end: it goes from its parent.
    void finishLevel(size_t index) {
        if (index == 0) {
            path_.resize(levels_[0].pathLength);
            closedir(levels_[0].stream);
            levels_.clear();
            removeEntry(AT_FDCWD, path_.c_str(), true);
            return;
        }
        if (levels_[index - 1].stream == nullptr && !reopen(index - 1)) return;
        Level &parent = levels_[index - 1];
        std::string name = std::move(levels_[index].name);
        closedir(levels_[index].stream);
        levels_.pop_back();
        setPath(index - 1, name.c_str());
        int parentFd = dirfd(parent.stream);
        if (unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        // Swapped for a link or a file while it was emptied: that goes too.
        if (errno == ENOTDIR && (unlinkat(parentFd, name.c_str(), 0) == 0 || errno == ENOENT)) {
            return;
        }
        keepAfterFailure(index - 1, name.c_str(), true);
    }

    // Opens the given-up level `index` again, from the open level below it by "..", else from
    // the top by the same names; every step is checked by device and inode. A level that is
    // not where it was (moved away by another process) is abandoned with everything below it,
    // and the walk goes on in the level above it. False when level `index` was abandoned.
    bool reopen(size_t index) {
        UniqueFd fd(openat(dirfd(levels_[index + 1].stream), "..", kDirectoryFlags));
        Identity id;
        size_t reached = index;
        if (!fd || !identify(fd.get(), id) || !id.sameInode(levels_[index].id)) {
            fd.reset();
            int current = dirfd(levels_[0].stream);
            reached = 0;
            for (size_t j = 1; j <= index; ++j) {
                UniqueFd next(openat(current, levels_[j].name.c_str(), kDirectoryFlags));
                if (!next || !identify(next.get(), id) || !id.sameInode(levels_[j].id)) break;
                fd = std::move(next);
                current = fd.get();
                reached = j;
            }
        }
        if (reached > 0) {
            DIR *stream = fdopendir(fd.get());
            if (stream != nullptr) {
                fd.release();
                levels_[reached].stream = stream;
            } else {
                reached = 0;  // no memory for a stream: go on from the top
            }
        }
        firstOpen_ = std::max<size_t>(reached, 1);
        if (reached == index) return true;
        while (levels_.size() > reached + 1) {
            if (levels_.back().stream != nullptr) closedir(levels_.back().stream);
            levels_.pop_back();
        }
        return false;
    }

    // Removes a non-directory, or with `directory` an emptied directory; false when it stays.
    bool removeEntry(int dirFd, const char *name, bool directory) {
        if (unlinkat(dirFd, name, directory ? AT_REMOVEDIR : 0) == 0 || errno == ENOENT) {
            return true;
        }
        // A file bind-mounted here belongs to another file system: not ours to remove.
        if (!directory && errno == EBUSY) return false;
        record(directory);
        return false;
    }

    void keepAfterFailure(size_t index, const char *name, bool directory) {
        record(directory);
        levels_[index].kept.insert(name);
    }

    void record(bool directory) {
        if (result_.failed) return;
        result_.failed = true;
        result_.failedPath = path_;
        result_.failedDirectory = directory;
        result_.failedErrno = errno;
    }

    TreeRemoval &result_;
    std::vector<Level> levels_;
    // Levels [firstOpen_, size) hold a stream, and so does the top.
    size_t firstOpen_ = 1;
    std::string path_;
};

}  // namespace

TreeRemoval removeTree(const std::string &path) {
    TreeRemoval result;
    Remover remover(result);
    remover.run(path);
    return result;
}

}  // namespace internal

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

}  // namespace Backup
}  // namespace TELO
