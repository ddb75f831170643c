// Run a program and wait for it, forwarding SIGINT and SIGTERM received meanwhile to it and
// telling the caller through a callback which signal arrived.
//
// Every call is synchronous on the caller's thread and takes no lock. The forwarding state
// (the child's pid, the last signal) exists once per process and is shared by all UtilExec
// objects. Failures are logged to the system log as "(pid) [err] proc/exec:line ...".
#ifndef TELOBACKUP_PROC_EXEC_H
#define TELOBACKUP_PROC_EXEC_H

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT UtilExec {
  public:
    UtilExec();

    // Installs the forwarder for SIGINT and SIGTERM with signal(), keeping the previous
    // handlers in this object. The forwarder records the signal; while an Execv child runs, it
    // also sends the signal to the child, logging "failed to signal [pid], errno=%m" if that
    // fails. Outside Execv it signals nobody.
    void SetSigHandler();

    // Reinstalls the handlers saved by SetSigHandler with signal() and forgets them. Does
    // nothing for a signal whose handler was not saved (no SetSigHandler before).
    void RestoreSigHandler();

    // Forks through the platform (TLIBCProcFork) and runs `path` with `argv` (execv: no PATH
    // search, the caller's environment) in the child, then waits for it with SIGINT/SIGTERM
    // forwarded. Returns the child's exit code; -1 when the fork failed (nothing logged), when
    // the child was killed by a signal (so a path that cannot be executed, whose child aborts,
    // gives -1) or when waiting failed. When a signal reached the forwarder while waiting and
    // `callback` is non-null, calls callback(last signal, the value about to be returned). The
    // SIGINT/SIGTERM handlers and the SIGCHLD flags are as before when it returns; the child
    // starts with an empty signal mask and SIGPIPE at its default.
    // Preconditions: one Execv at a time per process (the state is process-wide); nothing else
    // in the process reaps the child (waitpid(-1), a reaping SIGCHLD handler) or sets SIGCHLD
    // to SIG_IGN, else the result is -1.
    int Execv(const char *path, char *const *argv, void (*callback)(int sig, int result));

  private:
    void (*savedIntHandler)(int);
    void (*savedTermHandler)(int);
};

}  // namespace Backup
}  // namespace TELO

#endif
