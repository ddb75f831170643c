// Editing signal dispositions: install a handler, change the flags of the current disposition
// (handing back the old flags), and replace one disposition for the life of a scope.
//
// Every call is synchronous on the caller's thread and takes no lock. Dispositions are
// process-wide: two threads editing the same signal at once race. Failures are logged to the
// system log as "(pid) [err] proc/signal:line ...".
#ifndef TELOBACKUP_PROC_SIGNAL_H
#define TELOBACKUP_PROC_SIGNAL_H

#include <signal.h>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// Unblocks `sig` in the calling thread's mask, then installs `handler` (a function, SIG_IGN or
// SIG_DFL) with an empty mask and SA_RESTART. False on failure, after logging
// "sigaddset [sig]: %m", "sigprocmask [sig]: %m" or "sigaction [sig]: %m"; errno then holds the
// failure (EINVAL for a signal that does not exist or cannot be caught).
TELO_EXPORT bool signalHandlerSet(int sig, void (*handler)(int));

// Replaces the sa_flags of the current disposition of `sig` with `flags`, keeping its handler
// and mask. False on failure, after logging "sigaction get org failed: %m" (the disposition
// could not be read) or "sigaction set flags failed: %m"; errno holds the failure.
TELO_EXPORT bool signalHandlerSetFlags(int sig, int flags);

// Adds `flags` to the sa_flags of the current disposition of `sig`. `oldFlags` receives the
// flags as they were, as soon as they have been read (so it is set even when writing fails).
// Failures and logging as signalHandlerSetFlags; `oldFlags` is untouched when reading fails.
TELO_EXPORT bool signalHandlerAddFlags(int sig, int flags, int &oldFlags);

// Removes `flags` from the sa_flags of the current disposition of `sig`; `oldFlags` as for
// signalHandlerAddFlags. Undo with signalHandlerSetFlags(sig, oldFlags).
TELO_EXPORT bool signalHandlerRemoveFlags(int sig, int flags, int &oldFlags);

// Replaces one signal disposition and restores the previous one when destroyed. Arms at most
// once. Not copyable.
class TELO_EXPORT ScopedTempSigHandler {
  public:
    // Unarmed: destroying it changes nothing.
    ScopedTempSigHandler();
    // Restores the saved disposition when armed (signum >= 1).
    ~ScopedTempSigHandler();
    ScopedTempSigHandler(const ScopedTempSigHandler &) = delete;
    ScopedTempSigHandler &operator=(const ScopedTempSigHandler &) = delete;

    // Installs `handler` (a function, SIG_IGN or SIG_DFL) for `sig` with `flags` and an empty
    // mask, saving the previous disposition, and returns true. The kernel's answer is not
    // checked: true even when it refused (an invalid `sig` then leaves the object unarmed when
    // sig < 1, or "armed" with nothing saved). A second call on an armed object is refused:
    // false, after logging "failed to set signal handler: original signum [N]"; the first
    // replacement stays in place.
    bool setSignalHandler(int sig, int flags, void (*handler)(int));

  private:
    int signum;
    struct sigaction saved;
};

}  // namespace Backup
}  // namespace TELO

#endif
