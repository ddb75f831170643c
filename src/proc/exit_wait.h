// The pause between two checks for a child's end while a caller waits for it for a short grace
// period: on a pidfd of the child where the kernel has them, so the next check comes the moment
// the child exits, else a nap of 5 ms.
#ifndef TELO_SRC_PROC_EXIT_WAIT_H
#define TELO_SRC_PROC_EXIT_WAIT_H

#include <sys/types.h>
#include <time.h>

#include "internal/unique_fd.h"

namespace TELO {
namespace Backup {
namespace internal {

class ExitWait {
  public:
    // The grace period (kNaps naps) starts now. `pid` must be a child of the caller.
    explicit ExitWait(pid_t pid);
    ExitWait(const ExitWait &) = delete;
    ExitWait &operator=(const ExitWait &) = delete;

    // Waits until the child may have ended, at most until the grace period is over; false once
    // it is over, without waiting. The caller checks the child with waitpid(WNOHANG) before
    // each call. A pidfd is opened on the first call (which then returns at once, so that the
    // next check proves the pid still names the unreaped child) and closed with this object.
    bool pause();

    static constexpr int kNaps = 100;
    static constexpr long kNapMicroseconds = 5000;

  private:
    bool nap();

    pid_t pid_;
    struct timespec deadline_;
    UniqueFd pidfd_;
    bool napOnly_;
    bool untilDeadline_ = false;  // naps since the pidfd failed: they end with the grace period
    bool readySeen_ = false;      // the last poll found the child ended
    int naps_ = 0;
};

// A pidfd of child `pid` (close-on-exec), or -1 with errno (ENOSYS where the kernel or the
// headers have none).
int openPidfd(pid_t pid);

// Makes every later wait nap as it must where the kernel has no pidfds (tests and benchmarks
// compare the two ways).
void setExitWaitByNaps(bool naps);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
