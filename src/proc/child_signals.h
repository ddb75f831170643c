// Signal state around a child: what a program finds when it starts, and the SIGCHLD flags a
// launcher must change while it waits for its child.
#ifndef TELO_SRC_PROC_CHILD_SIGNALS_H
#define TELO_SRC_PROC_CHILD_SIGNALS_H

#include <signal.h>

namespace TELO {
namespace Backup {
namespace internal {

// What resetSignalsForExec() replaced.
struct SignalsBeforeExec {
    struct sigaction pipeAction;
    sigset_t mask;
};

// Sets SIGPIPE to its default and empties the signal mask, as every program started by the
// library expects to find them. Async-signal-safe. When `before` is given, it receives what was
// there, for restoreSignalsAfterFailedExec().
void resetSignalsForExec(SignalsBeforeExec *before = nullptr);

// Puts back what resetSignalsForExec() saved (an exec in the caller's own process failed, and the
// process goes on). Keeps errno.
void restoreSignalsAfterFailedExec(const SignalsBeforeExec &before);

// Replaces the sa_flags of the SIGCHLD disposition with raw system calls, for the code between
// fork and exec. Async-signal-safe; failures are ignored.
void setChildFlagsInChild(int flags);

// Clears SA_NOCLDWAIT on SIGCHLD for its lifetime, so that waitpid can collect the launcher's
// child instead of the kernel reaping it, and gives the caller its flags back on every path
// (restore(), or at the end of the scope), keeping errno.
class ChildFlagsScope {
  public:
    enum class Style {
        // Through signalHandlerRemoveFlags and signalHandlerSetFlags, which log their failures:
        // all the old flags come back.
        kLoggedAllFlags,
        // With raw sigaction calls, silently: only SA_NOCLDWAIT is added back, and only when it
        // was set, so a change made meanwhile to other flags stays.
        kQuietNoChildWaitOnly,
    };

    explicit ChildFlagsScope(Style style);
    ~ChildFlagsScope() { restore(); }
    ChildFlagsScope(const ChildFlagsScope &) = delete;
    ChildFlagsScope &operator=(const ChildFlagsScope &) = delete;

    // False when the logged style could not change the flags (signal.cpp logged why; errno holds
    // the failure): nothing is restored then. The quiet style always holds. False again once the
    // flags have been given back.
    bool held() const { return held_; }
    // The caller's SIGCHLD flags, for a child to restore before its exec.
    int savedFlags() const { return savedFlags_; }

    // Gives the flags back now rather than at the end of the scope; later calls do nothing.
    void restore();

  private:
    Style style_;
    bool held_ = false;
    int savedFlags_ = 0;
};

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
