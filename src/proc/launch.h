// Starting a child process that is safe in a multi-threaded host and cheap from a large one.
//
// The child shares the caller's memory until it execs or exits (clone with CLONE_VM and
// CLONE_VFORK, on a stack of its own), so the launch does not copy page tables. Where that is
// refused, a plain fork is used instead. Either way the caller resumes only once the child has
// exec'd or exited, and the child runs with no handler of the caller installed, so its code must
// stick to async-signal-safe system calls: no allocation, no lock, no logging. What it has to
// say goes into a ParentReport that the parent reads afterwards.
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

// The events of one launch, in order, as the parent reads them back.
class ChildEvents {
  public:
    // Room for every event one launch can report (a handful); later ones are dropped.
    static constexpr int kCapacity = 16;

    int size() const { return count_; }
    const ChildEvent &at(int i) const { return events_[i]; }

  private:
    friend class ParentReport;
    friend class ChildStarter;
    ChildEvent events_[kCapacity] = {};
    int count_ = 0;
};

// Where the code between fork and exec puts what it has to say. add() is async-signal-safe. The
// delivery is a plain function pointer, not a virtual call: a sanitizer's checks of a virtual
// call are not safe in a child that shares the caller's memory.
class EventSink {
  public:
    void add(int kind, int error, int arg = 0);
    // The descriptor the sink writes through, which a child must leave open (it is close-on-exec
    // and never 0..2); -1 when there is none.
    int channelFd() const { return channelFd_; }

  protected:
    using Deliver = void (*)(EventSink &sink, const ChildEvent &event);
    explicit EventSink(Deliver deliver) : deliver_(deliver) {}
    ~EventSink() = default;
    int channelFd_ = -1;

  private:
    Deliver deliver_;
};

// Reports to the parent, which logs the events once ChildStarter::start() has returned: into
// shared memory when the child shares the caller's, through a pipe when it is a plain fork.
class ParentReport final : public EventSink {
  public:
    ParentReport() : EventSink(deliverToParent) {}
    const ChildEvents &events() const { return events_; }

  private:
    friend class ChildStarter;
    static void deliverToParent(EventSink &sink, const ChildEvent &event);
    ChildEvents events_;
};

// Hands each event at once to `log(event, context)`: for exec(), which has no child, and for a
// child nobody waits for, which logs its own lines.
class ImmediateLog final : public EventSink {
  public:
    ImmediateLog(void (*log)(const ChildEvent &, void *), void *context)
        : EventSink(deliverNow), log_(log), context_(context) {}

  private:
    static void deliverNow(EventSink &sink, const ChildEvent &event) {
        const ImmediateLog &self = static_cast<const ImmediateLog &>(sink);
        self.log_(event, self.context_);
    }
    void (*log_)(const ChildEvent &, void *);
    void *context_;
};

// Starts children for one launch. `body(arg)` runs in the child with every signal handler of
// the caller reset to the default, SIGPIPE at its default and an empty signal mask; it must end
// in exec or _exit and never return.
class ChildStarter {
  public:
    // start() returns once the child has exec'd or exited; what it reported is then in `report`.
    ChildStarter(int (*body)(void *), void *arg, ParentReport &report)
        : body_(body), arg_(arg), report_(&report) {}
    // start() forks and returns at once: the child deals with its events itself (an
    // ImmediateLog). That is for children that may block before their exec for as long as
    // someone else pleases (opening a FIFO).
    ChildStarter(int (*body)(void *), void *arg) : body_(body), arg_(arg) {}
    ChildStarter(const ChildStarter &) = delete;
    ChildStarter &operator=(const ChildStarter &) = delete;

    // Starts the child and returns its pid once it has exec'd or exited (at once without a
    // report); -1 with errno when no child could be made. The caller's signal mask is as
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
    ParentReport *report_ = nullptr;  // null: not waited for
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
