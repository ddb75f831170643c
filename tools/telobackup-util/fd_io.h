// Reads and writes on descriptors that carry on when a signal interrupts them.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_FD_IO_H
#define TELO_TOOLS_TELOBACKUP_UTIL_FD_IO_H

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace telocli {

// read(2), again while it fails with EINTR.
inline ssize_t readRetrying(int fd, void *buffer, size_t size) {
    ssize_t n;
    do {
        n = read(fd, buffer, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Writes all `size` bytes, going on after EINTR and short writes; false with errno on failure.
inline bool writeAll(int fd, const void *data, size_t size) {
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace telocli

#endif
