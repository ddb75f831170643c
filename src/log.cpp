#include "telobackup/log.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "internal/eintr.h"
#include "internal/unique_fd.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::internal::writeFull;

namespace {

// The descriptor, once opened, is kept for the life of the process; filelogReopen only replaces
// the file behind it (dup3), so a writer that loaded it never writes to a closed number.
std::atomic<int> logFd{-1};
// The path it was opened from, written before logFd is published and read by filelogReopen,
// which may run in a signal handler and so cannot build it again.
char logPath[PATH_MAX];
std::mutex openMutex;

constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_LARGEFILE;

// Lines that fit are formatted on the stack, longer ones on the heap; not a limit on lines.
constexpr size_t kStackLineSize = 1024;

int acquireLogFd() {
    int fd = logFd.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    std::lock_guard<std::mutex> lock(openMutex);
    fd = logFd.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    std::string path = TELO::Backup::Path::getLogPath();
    if (path == "stderr") {
        fd = STDERR_FILENO;
    } else if (!path.empty()) {
        if (path.size() >= sizeof(logPath)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        fd = TELO::Backup::internal::retryOnEintr(
            [&] { return open(path.c_str(), kOpenFlags, 0666); });
        if (fd < 0) return -1;
        memcpy(logPath, path.c_str(), path.size() + 1);
    }
    if (fd >= 0) logFd.store(fd, std::memory_order_release);
    return fd;
}

// Forces what was written to storage. A descriptor that cannot be synced (a terminal, a pipe,
// a device) is no failure; a failed sync of a file is (-1 with errno).
int syncFd(int fd) {
    if (fdatasync(fd) == 0) return 0;
    if (errno == EOPNOTSUPP && fsync(fd) == 0) return 0;
    return errno == EINVAL || errno == EROFS || errno == EOPNOTSUPP ? 0 : -1;
}

// Writes one timestamped line with a single write(2), so lines of other threads and processes
// appending to the same file never land inside it; 0, or -1 with errno.
int writeLine(int fd, const char *format, va_list ap) {
    char small[kStackLineSize];
    size_t length = 0;
    time_t now = time(nullptr);
    struct tm local = {};
    if (localtime_r(&now, &local) != nullptr) {
        length = strftime(small, sizeof(small), "%Y-%m-%dT%H:%M:%S ", &local);
    }
    va_list copy;
    va_copy(copy, ap);
    int formatted = vsnprintf(small + length, sizeof(small) - length, format, copy);
    va_end(copy);
    if (formatted < 0) return -1;
    std::string large;
    const char *line = small;
    if (length + static_cast<size_t>(formatted) + 1 < sizeof(small)) {
        length += static_cast<size_t>(formatted);
        small[length++] = '\n';
    } else {
        large.assign(small, length);
        large.resize(length + static_cast<size_t>(formatted) + 1);
        vsnprintf(&large[length], static_cast<size_t>(formatted) + 1, format, ap);
        large.back() = '\n';
        line = large.data();
        length = large.size();
    }
    if (!writeFull(fd, line, length)) return -1;
    return syncFd(fd);
}

}  // namespace

extern "C" {

void vfilelog(int /*level*/, const char *format, va_list ap) {
    if (format == nullptr) return;
    int fd = acquireLogFd();
    if (fd < 0) return;
    writeLine(fd, format, ap);
}

int filelogChecked(int /*level*/, const char *format, ...) {
    if (format == nullptr) {
        errno = EINVAL;
        return -1;
    }
    errno = 0;
    int fd = acquireLogFd();
    if (fd < 0) {
        int openErrno = errno;
        if (TELO::Backup::Path::getLogPath().empty()) return 0;  // turned off
        errno = openErrno != 0 ? openErrno : ENOENT;
        return -1;
    }
    va_list ap;
    va_start(ap, format);
    int result = writeLine(fd, format, ap);
    va_end(ap);
    return result;
}

void filelog(int level, const char *format, ...) {
    if (format == nullptr || acquireLogFd() < 0) return;
    va_list ap;
    va_start(ap, format);
    vfilelog(level, format, ap);
    va_end(ap);
}

int filelogReopen(void) {
    int fd = logFd.load(std::memory_order_acquire);
    if (fd < 0 || fd == STDERR_FILENO) return 0;
    int opened;
    do {
        opened = open(logPath, kOpenFlags, 0666);
    } while (opened < 0 && errno == EINTR);
    TELO::Backup::internal::UniqueFd fresh(opened);
    if (!fresh) return -1;
    return dup3(fresh.get(), fd, O_CLOEXEC) < 0 ? -1 : 0;  // closing `fresh` keeps errno
}

}  // extern "C"
