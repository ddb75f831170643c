#include "proc/launch.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "proc/child_signals.h"

#if defined(__SANITIZE_ADDRESS__)
#define TELO_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TELO_ASAN 1
#endif
#endif
#ifdef TELO_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// Room for the child's frames (the descriptor scan keeps a small buffer on it); pages that are
// never touched cost nothing.
constexpr size_t kStackSize = 256 * 1024;

// How much of a report beyond the events' capacity is read (and dropped) at a time.
constexpr size_t kDrainChunk = 256;

std::atomic<bool> forkOnlyFlag{false};
// Set once the kernel or a seccomp filter has refused a shared-memory child.
std::atomic<bool> sharedRefused{false};

struct Entry {
    int (*body)(void *);
    void *arg;
};

// The caller's handlers must not run in the child: under shared memory they would write the
// caller's data, and in any case they belong to another program. Ignored signals other than
// SIGPIPE stay ignored, as an exec would keep them.
void cleanSignalState() {
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig == SIGKILL || sig == SIGSTOP) continue;
        struct sigaction current = {};
        if (sigaction(sig, nullptr, &current) != 0) continue;
        bool handled = current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
        if (handled) sigaction(sig, &byDefault, nullptr);
    }
    resetSignalsForExec();  // SIGPIPE too, even when ignored, and the mask
}

int entryPoint(void *p) {
    const Entry *entry = static_cast<const Entry *>(p);
    cleanSignalState();
    return entry->body(entry->arg);
}

// Blocks every signal of the calling thread for its lifetime, so that no handler runs in a
// child before it has reset them.
class AllSignalsBlocked {
  public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &old_);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked &) = delete;
    AllSignalsBlocked &operator=(const AllSignalsBlocked &) = delete;

  private:
    sigset_t old_;
};

}  // namespace

__attribute__((no_sanitize("address"))) void exitChild(int code) {
    _exit(code);
}

void setForkOnly(bool forkOnly) {
    forkOnlyFlag.store(forkOnly);
}

void EventSink::add(int kind, int error, int arg) {
    deliver_(*this, ChildEvent{kind, error, arg, static_cast<int>(getpid())});
}

void ParentReport::deliverToParent(EventSink &sink, const ChildEvent &event) {
    ParentReport &self = static_cast<ParentReport &>(sink);
    if (self.channelFd_ >= 0) {
        writeFull(self.channelFd_, &event, sizeof(event));
    } else if (self.events_.count_ < ChildEvents::kCapacity) {
        self.events_.events_[self.events_.count_++] = event;
    }
}

pid_t ChildStarter::start() {
    if (report_ == nullptr) {
        Entry entry{body_, arg_};
        AllSignalsBlocked blocked;
        pid_t pid = fork();
        if (pid == 0) exitChild(entryPoint(&entry));
        return pid;
    }
    if (!forkOnlyFlag.load(std::memory_order_relaxed) &&
        !sharedRefused.load(std::memory_order_relaxed)) {
        pid_t pid = startShared();
        if (pid > 0) return pid;
        if (errno == EINVAL || errno == ENOSYS || errno == EPERM) {
            sharedRefused.store(true, std::memory_order_relaxed);
        }
    }
    return startForked();
}

pid_t ChildStarter::startShared() {
    long page = sysconf(_SC_PAGESIZE);
    size_t total = 2 * (static_cast<size_t>(page) + kStackSize);
    void *mapped = mmap(nullptr, total, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) return -1;
    // Two stacks (the child's, and a grandchild's for a detached start), each above a guard
    // page.
    char *region = static_cast<char *>(mapped);
    mprotect(region, page, PROT_NONE);
    mprotect(region + page + kStackSize, page, PROT_NONE);
    char *stackTop = region + page + kStackSize;
    nestedStackTop_ = region + total;
    shared_ = true;

    int savedErrno = errno;
    Entry entry{body_, arg_};
    pid_t pid;
    int cloneErrno;
    {
        AllSignalsBlocked blocked;
        pid = clone(entryPoint, stackTop, CLONE_VM | CLONE_VFORK | SIGCHLD, &entry);
        cloneErrno = errno;
    }
    shared_ = false;
    nestedStackTop_ = nullptr;
#ifdef TELO_ASAN
    // The child's frames poisoned shadow memory of the stacks it may never have unwound.
    __asan_unpoison_memory_region(region, total);
#endif
    munmap(region, total);
    // The child ran on this thread's errno.
    errno = pid < 0 ? cloneErrno : savedErrno;
    return pid;
}

pid_t ChildStarter::startForked() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    // The child redirects its standard streams; its channel must not be one of them.
    if (fds[1] <= 2) {
        int moved = fcntl(fds[1], F_DUPFD_CLOEXEC, 3);
        ErrnoSaver keep;  // the failed move's errno, not what the closes make of it
        close(fds[1]);
        if (moved < 0) {
            close(fds[0]);
            return -1;
        }
        fds[1] = moved;
    }
    report_->channelFd_ = fds[1];
    Entry entry{body_, arg_};
    pid_t pid;
    int forkErrno;
    {
        AllSignalsBlocked blocked;
        pid = fork();
        if (pid == 0) {
            close(fds[0]);
            exitChild(entryPoint(&entry));
        }
        forkErrno = errno;
    }
    close(fds[1]);
    report_->channelFd_ = -1;
    if (pid > 0) {
        // End of file comes when the child has exec'd or exited (and any grandchild too).
        ChildEvents &events = report_->events_;
        ssize_t n = readFull(fds[0], events.events_, sizeof(events.events_));
        events.count_ = n > 0 ? static_cast<int>(static_cast<size_t>(n) / sizeof(ChildEvent)) : 0;
        // Events beyond the capacity are read and dropped, so that end of file is still seen.
        char rest[kDrainChunk];
        while (readFull(fds[0], rest, sizeof(rest)) == static_cast<ssize_t>(sizeof(rest))) {
        }
    }
    close(fds[0]);
    errno = forkErrno;
    return pid;
}

pid_t ChildStarter::startNested(int (*body)(void *), void *arg) {
    Entry entry{body, arg};
    if (shared_) {
        return clone(entryPoint, nestedStackTop_, CLONE_VM | CLONE_VFORK | SIGCHLD, &entry);
    }
    pid_t pid = fork();
    if (pid == 0) exitChild(entryPoint(&entry));
    return pid;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
