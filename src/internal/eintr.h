// System-call wrappers that retry on EINTR.
#ifndef TELO_SRC_INTERNAL_EINTR_H
#define TELO_SRC_INTERNAL_EINTR_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace TELO {
namespace Backup {
namespace internal {

// Calls fn() again while it fails with EINTR; returns its last result.
template <typename F>
auto retryOnEintr(F fn) -> decltype(fn()) {
    decltype(fn()) result;
    do {
        result = fn();
    } while (result == -1 && errno == EINTR);
    return result;
}

// Writes all `size` bytes; false with errno set on failure.
inline bool writeFull(int fd, const void *data, size_t size) {
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Reads until `size` bytes or end of file; the count read, or -1 with errno set.
inline ssize_t readFull(int fd, void *data, size_t size) {
    char *p = static_cast<char *>(data);
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::read(fd, p + done, size - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
