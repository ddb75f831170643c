#include "proc/exit_wait.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace TELO {
namespace Backup {
namespace internal {

namespace {

constexpr long kNanosecondsPerSecond = 1000 * 1000 * 1000;

std::atomic<bool> napsOnlyFlag{false};

struct timespec now() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

long nanosecondsUntil(const struct timespec &deadline) {
    struct timespec t = now();
    return (deadline.tv_sec - t.tv_sec) * kNanosecondsPerSecond + (deadline.tv_nsec - t.tv_nsec);
}

}  // namespace

int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    // Close-on-exec by definition.
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

void setExitWaitByNaps(bool naps) {
    napsOnlyFlag.store(naps);
}

ExitWait::ExitWait(pid_t pid) : pid_(pid), deadline_(now()), napOnly_(napsOnlyFlag.load()) {
    long grace = kNaps * kNapMicroseconds * 1000;
    deadline_.tv_sec += grace / kNanosecondsPerSecond;
    deadline_.tv_nsec += grace % kNanosecondsPerSecond;
    if (deadline_.tv_nsec >= kNanosecondsPerSecond) {
        deadline_.tv_nsec -= kNanosecondsPerSecond;
        ++deadline_.tv_sec;
    }
}

bool ExitWait::pause() {
    if (!napOnly_ && !pidfd_) {
        pidfd_.reset(openPidfd(pid_));
        if (pidfd_) return true;
        napOnly_ = true;
    }
    if (napOnly_) return nap();
    long remaining = nanosecondsUntil(deadline_);
    if (remaining <= 0) return false;
    struct pollfd watched = {pidfd_.get(), POLLIN, 0};
    struct timespec timeout = {remaining / kNanosecondsPerSecond,
                               remaining % kNanosecondsPerSecond};
    int ready = ppoll(&watched, 1, &timeout, nullptr);
    // Ended yet not to be collected (a tracer holds it), or the poll failed: nap out the rest
    // rather than spin.
    if ((ready > 0 && readySeen_) || (ready < 0 && errno != EINTR)) {
        napOnly_ = true;
        untilDeadline_ = true;
        return nap();
    }
    readySeen_ = ready > 0;
    return true;
}

bool ExitWait::nap() {
    if (untilDeadline_ ? nanosecondsUntil(deadline_) <= 0 : naps_ == kNaps) return false;
    usleep(kNapMicroseconds);
    ++naps_;
    return true;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
