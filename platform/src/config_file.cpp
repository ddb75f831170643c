#include "config_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "internal/eintr.h"
#include "internal/unique_fd.h"

namespace telo_platform {

using TELO::Backup::internal::readFull;
using TELO::Backup::internal::retryOnEintr;
using TELO::Backup::internal::UniqueFd;

bool readConfigFile(const std::string &path, size_t limit, FileKind kind, std::string &content) {
    content.clear();
    UniqueFd fd(
        retryOnEintr([&] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
    if (!fd) return false;
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    if (kind == FileKind::kRegular) {
        struct statfs fs;
        if (fstatfs(fd.get(), &fs) != 0) return false;
        if (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC) {
            errno = EINVAL;
            return false;
        }
    }
    if (static_cast<unsigned long long>(st.st_size) > limit) {
        errno = EFBIG;
        return false;
    }
    // Kernel files report no size: read in steps until the end, one byte past the limit at most.
    size_t step = st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : 64 * 1024;
    for (;;) {
        size_t want = std::min(step, limit + 1 - content.size());
        size_t had = content.size();
        content.resize(had + want);
        ssize_t got = readFull(fd.get(), &content[had], want);
        if (got < 0) {
            content.clear();
            return false;
        }
        content.resize(had + static_cast<size_t>(got));
        if (content.size() > limit) {
            content.clear();
            errno = EFBIG;
            return false;
        }
        if (static_cast<size_t>(got) < want) return true;
    }
}

std::string configFileError(int error, size_t limit) {
    if (error == EINVAL) return "not a regular file";
    if (error == EFBIG) return "larger than " + std::to_string(limit) + " bytes";
    return strerror(error);
}

}  // namespace telo_platform
