// A move-only owner of one file descriptor.
#ifndef TELO_SRC_INTERNAL_UNIQUE_FD_H
#define TELO_SRC_INTERNAL_UNIQUE_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "internal/errno_saver.h"

namespace TELO {
namespace Backup {
namespace internal {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Gives up ownership without closing.
    int release() { return std::exchange(fd_, -1); }

    // Closes the held descriptor (errno preserved) and takes `fd`.
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd) {
            ErrnoSaver keep;
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
