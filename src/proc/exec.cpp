#include "telobackup/proc/exec.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/syslog.h"
#include "telo/platform.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "proc/exec";

// Shared by every UtilExec of the process; read by the forwarder.
volatile sig_atomic_t childPid = -1;
volatile sig_atomic_t lastSignal = -1;

// "Nothing saved": SIG_DFL is a real previous handler, so it cannot mark an empty field.
void (*const kNotSaved)(int) = SIG_ERR;

void forwardSignal(int sig) {
    int savedErrno = errno;
    lastSignal = sig;
    // Without a running child, kill(-1, sig) would reach every process we may signal.
    pid_t pid = childPid;
    if ((sig == SIGINT || sig == SIGTERM) && pid > 0) {
        if (kill(pid, sig) != 0) {
            TELO_LOG_ERR("failed to signal [%u], errno=%m", static_cast<unsigned>(pid));
        }
    }
    errno = savedErrno;
}

// Clears SA_NOCLDWAIT on SIGCHLD so that waitpid can collect the child; true when it was set.
bool clearNoChildWait() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigaction(SIGCHLD, nullptr, &action);
    bool wasSet = (action.sa_flags & SA_NOCLDWAIT) != 0;
    action.sa_flags &= ~SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
    return wasSet;
}

void setNoChildWait() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigaction(SIGCHLD, nullptr, &action);
    action.sa_flags |= SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
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
    bool hadNoChildWait = clearNoChildWait();
    pid_t pid = TLIBCProcFork();
    if (pid < 0) {
        int savedErrno = errno;
        if (hadNoChildWait) setNoChildWait();
        errno = savedErrno;
        return -1;
    }
    if (pid == 0) {
        struct sigaction deflt;
        memset(&deflt, 0, sizeof(deflt));
        deflt.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &deflt, nullptr);
        sigset_t empty;
        sigemptyset(&empty);
        sigprocmask(SIG_SETMASK, &empty, nullptr);
        execv(path, argv);
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
            result = (status & 0x7f) != 0 ? -1 : WEXITSTATUS(status);
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
    if (hadNoChildWait) setNoChildWait();
    RestoreSigHandler();
    return result;
}

}  // namespace Backup
}  // namespace TELO
