// Starting a child process that is safe in a multi-threaded host and cheap from a large one.
//
// The child shares the caller's memory until it execs or exits (clone with CLONE_VM and
// CLONE_VFORK, on a stack of its own), so the launch does not copy page tables. Where that is
// refused, a plain fork is used instead. Either way the caller resumes only once the child has
// exec'd or exited, and the child runs with no handler of the caller installed, so its code must
// stick to async-signal-safe system calls: no allocation, no lock, no logging. What it has to
// say goes into a ChildReport that the parent reads afterwards.
#ifndef TELO_SRC_PROC_LAUNCH_H
#define TELO_SRC_PROC_LAUNCH_H

#include <sys/types.h>

namespace TELO {
namespace Backup {
namespace internal {

// One fact a child reports: what happened (a code of the caller's), the errno of the moment,
// an argument, and the pid of the process it happened in.
struct ChildEvent {
    int kind;
    int error;
    int arg;
    int pid;
};

// Events of one launch, in order. Children write them with add(); the parent reads them once
// startChild has returned. In the parent's own process (no child at all) an immediate sink
// can take each event as it comes instead.
class ChildReport {
  public:
    static constexpr int kCapacity = 16;

    // Async-signal-safe: records into shared memory or writes to the channel descriptor.
    void add(int kind, int error, int arg = 0);

    int size() const { return count_; }
    const ChildEvent &at(int i) const { return events_[i]; }

    // The descriptor a forked child reports through (close-on-exec, never 0..2), or -1. The
    // child must leave it open and close-on-exec.
    int channelFd() const { return channelFd_; }

    // Hands each event to `sink` at once (used when no child is involved).
    void setImmediateSink(void (*sink)(const ChildEvent &, void *), void *context) {
        sink_ = sink;
        sinkContext_ = context;
    }

  private:
    friend class ChildStarter;
    ChildEvent events_[kCapacity] = {};
    int count_ = 0;
    int channelFd_ = -1;
    void (*sink_)(const ChildEvent &, void *) = nullptr;
    void *sinkContext_ = nullptr;
};

// Starts children for one launch. `body(arg)` runs in the child with every signal handler of
// the caller reset to the default, SIGPIPE at its default and an empty signal mask; it must end
// in exec or _exit and never return.
class ChildStarter {
  public:
    // Without `waitForExec`, start() forks and returns at once, and the report must have an
    // immediate sink: the child then deals with its events itself. That is for children that may
    // block before their exec for as long as someone else pleases (opening a FIFO).
    ChildStarter(int (*body)(void *), void *arg, ChildReport &report, bool waitForExec = true)
        : body_(body), arg_(arg), report_(report), waitForExec_(waitForExec) {}
    ChildStarter(const ChildStarter &) = delete;
    ChildStarter &operator=(const ChildStarter &) = delete;

    // Starts the child and returns its pid once it has exec'd or exited (at once without
    // waitForExec); -1 with errno when no child could be made. The caller's signal mask is as
    // before.
    pid_t start();

    // From inside a child started by start(): starts a grandchild running `body(arg)` the same
    // way and returns its pid (in the child) once the grandchild has exec'd or exited under
    // shared memory, at once after a fork; -1 with errno on failure.
    pid_t startNested(int (*body)(void *), void *arg);

  private:
    pid_t startShared();
    pid_t startForked();

    int (*body_)(void *);
    void *arg_;
    ChildReport &report_;
    bool waitForExec_;
    bool shared_ = false;
    char *nestedStackTop_ = nullptr;
};

// Ends a child started by ChildStarter at once (_exit). Not declared noreturn on purpose: a
// sanitizer would otherwise try to unwind a stack it does not know before the call.
void exitChild(int code);

// Makes every later start use fork instead of shared memory (tests and benchmarks compare the
// two paths). Set it before launching.
void setForkOnly(bool forkOnly);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
