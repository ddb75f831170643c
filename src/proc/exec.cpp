#include "telobackup/proc/exec.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "internal/errno_saver.h"
#include "internal/syslog.h"
#include "proc/child_signals.h"
#include "telo/platform.h"

namespace TELO {
namespace Backup {

using internal::ChildFlagsScope;
using internal::ErrnoSaver;
using internal::resetSignalsForExec;

namespace {

constexpr char kLogSource[] = "proc/exec";

// Shared by every UtilExec of the process; read by the forwarder.
volatile sig_atomic_t childPid = -1;
volatile sig_atomic_t lastSignal = -1;

// "Nothing saved": SIG_DFL is a real previous handler, so it cannot mark an empty field.
void (*const kNotSaved)(int) = SIG_ERR;

void forwardSignal(int sig) {
    ErrnoSaver keep;  // a handler must not change the errno of the code it interrupted
    lastSignal = sig;
    // Without a running child, kill(-1, sig) would reach every process we may signal.
    pid_t pid = childPid;
    if ((sig == SIGINT || sig == SIGTERM) && pid > 0) {
        if (kill(pid, sig) != 0) {
            TELO_LOG_ERR("failed to signal [%u], errno=%m", static_cast<unsigned>(pid));
        }
    }
}

}  // namespace

UtilExec::UtilExec() : savedIntHandler(kNotSaved), savedTermHandler(kNotSaved) {}

void UtilExec::SetSigHandler() {
    savedIntHandler = signal(SIGINT, forwardSignal);
    savedTermHandler = signal(SIGTERM, forwardSignal);
}

void UtilExec::RestoreSigHandler() {
    if (savedIntHandler != kNotSaved) signal(SIGINT, savedIntHandler);
    if (savedTermHandler != kNotSaved) signal(SIGTERM, savedTermHandler);
    savedIntHandler = kNotSaved;
    savedTermHandler = kNotSaved;
}

int UtilExec::Execv(const char *path, char *const *argv, void (*callback)(int sig, int result)) {
    childPid = -1;
    lastSignal = -1;

    // Before the fork: with SA_NOCLDWAIT still set, a child that ends at once would be reaped
    // by the kernel before we could wait for it.
    ChildFlagsScope childFlags(ChildFlagsScope::Style::kQuietNoChildWaitOnly);
    pid_t pid = TLIBCProcFork();
    if (pid < 0) return -1;  // the flags come back with errno kept
    if (pid == 0) {
        resetSignalsForExec();
        execv(path, argv);
        // Dying by a signal is how the parent tells a program that could not be run (-1) from
        // any exit code the program itself may return. It also runs no exit handler or stdio
        // flush of the caller's, which a plain forked copy must not.
        abort();
    }

    childPid = pid;
    SetSigHandler();

    int result;
    for (;;) {
        int status = 0;
        pid_t waited = waitpid(pid, &status, 0);
        if (waited == 0) {
            TELO_LOG_SHORT(LOG_ERR, "BUG: return value of waitpid is not possible to be 0");
            result = -1;
            break;
        }
        if (waited > 0) {
            result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            break;
        }
        if (errno != EINTR) {
            result = -1;
            break;
        }
    }
    // The pid may be reused from now on; a late signal must not reach a stranger.
    childPid = -1;

    if (callback != nullptr && lastSignal >= 0) callback(lastSignal, result);
    childFlags.restore();
    RestoreSigHandler();
    return result;
}

}  // namespace Backup
}  // namespace TELO
