// Keeps errno across cleanup: the failure a caller reports must be the first one, not what a
// close() or unlink() on the way out happened to set.
#ifndef TELO_SRC_INTERNAL_ERRNO_SAVER_H
#define TELO_SRC_INTERNAL_ERRNO_SAVER_H

#include <cerrno>

namespace TELO {
namespace Backup {
namespace internal {

// Saves errno when made and puts it back when the scope ends.
class ErrnoSaver {
  public:
    ErrnoSaver() : saved_(errno) {}
    ErrnoSaver(const ErrnoSaver &) = delete;
    ErrnoSaver &operator=(const ErrnoSaver &) = delete;
    ~ErrnoSaver() { errno = saved_; }

    // The value that will be restored.
    int value() const { return saved_; }

  private:
    int saved_;
};

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
