#include "internal/stale_temporaries.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "internal/errno_saver.h"
#include "internal/safe_open.h"
#include "internal/unique_fd.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

bool isTemporaryName(const char *entry, const std::string &name) {
    if (name.empty() || strncmp(entry, name.c_str(), name.size()) != 0 ||
        entry[name.size()] != '.') {
        return false;
    }
    const char *suffix = entry + name.size() + 1;
    for (int i = 0; i < 6; ++i) {
        char c = suffix[i];
        bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (!alphabet) return false;
    }
    return suffix[6] == '\0';
}

struct DirCloser {
    void operator()(DIR *dir) const { closedir(dir); }
};

}  // namespace

int removeStaleTemporaries(const std::string &file) {
    ErrnoSaver keep;
    int removed = 0;
    ConfigFile target;
    if (openConfigFile(file, O_RDONLY, 0, target) || errno == ENOENT) {
        UniqueFd listing(
            target.dir ? openat(target.dir.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
        std::unique_ptr<DIR, DirCloser> dir(listing ? fdopendir(listing.get()) : nullptr);
        if (dir) listing.release();
        const time_t staleBefore = time(nullptr) - kStaleTemporaryAge;
        const uid_t me = geteuid();
        while (struct dirent *entry = dir ? readdir(dir.get()) : nullptr) {
            if (!isTemporaryName(entry->d_name, target.name)) continue;
            struct stat st;
            int fd = dirfd(dir.get());
            if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                st.st_uid == me && st.st_mtime < staleBefore &&
                unlinkat(fd, entry->d_name, 0) == 0) {
                ++removed;
            }
        }
    }
    return removed;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
