#include "proc/child_signals.h"

#include <cstring>

#include "internal/errno_saver.h"
#include "telobackup/proc/signal.h"

namespace TELO {
namespace Backup {
namespace internal {

void resetSignalsForExec(SignalsBeforeExec *before) {
    struct sigaction byDefault;
    memset(&byDefault, 0, sizeof(byDefault));
    byDefault.sa_handler = SIG_DFL;
    sigset_t empty;
    sigemptyset(&empty);
    sigaction(SIGPIPE, &byDefault, before != nullptr ? &before->pipeAction : nullptr);
    sigprocmask(SIG_SETMASK, &empty, before != nullptr ? &before->mask : nullptr);
}

void restoreSignalsAfterFailedExec(const SignalsBeforeExec &before) {
    ErrnoSaver keep;
    sigprocmask(SIG_SETMASK, &before.mask, nullptr);
    sigaction(SIGPIPE, &before.pipeAction, nullptr);
}

void setChildFlagsInChild(int flags) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    if (sigaction(SIGCHLD, nullptr, &action) != 0) return;
    action.sa_flags = flags;
    sigaction(SIGCHLD, &action, nullptr);
}

ChildFlagsScope::ChildFlagsScope(Style style) : style_(style) {
    if (style_ == Style::kLoggedAllFlags) {
        held_ = signalHandlerRemoveFlags(SIGCHLD, SA_NOCLDWAIT, savedFlags_);
        return;
    }
    // A failed read leaves the zeroed action, which reads as "SA_NOCLDWAIT was not set".
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigaction(SIGCHLD, nullptr, &action);
    savedFlags_ = action.sa_flags;
    action.sa_flags &= ~SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
    held_ = true;
}

void ChildFlagsScope::restore() {
    if (!held_) return;
    held_ = false;
    ErrnoSaver keep;
    if (style_ == Style::kLoggedAllFlags) {
        signalHandlerSetFlags(SIGCHLD, savedFlags_);
        return;
    }
    if ((savedFlags_ & SA_NOCLDWAIT) == 0) return;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigaction(SIGCHLD, nullptr, &action);
    action.sa_flags |= SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
