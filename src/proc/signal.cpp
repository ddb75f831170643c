#include "telobackup/proc/signal.h"

#include <cerrno>
#include <cstring>

#include "internal/syslog.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "proc/signal";

// Reads the disposition of `sig`, lets `edit` change its flags and writes it back.
template <typename Edit>
bool editFlags(int sig, Edit edit) {
    struct sigaction current;
    memset(&current, 0, sizeof(current));
    if (sigaction(sig, nullptr, &current) != 0) {
        TELO_LOG_ERR("sigaction get org failed: %m");
        return false;
    }
    current.sa_flags = edit(current.sa_flags);
    if (sigaction(sig, &current, nullptr) != 0) {
        TELO_LOG_ERR("sigaction set flags failed: %m");
        return false;
    }
    return true;
}

}  // namespace

bool signalHandlerSet(int sig, void (*handler)(int)) {
    sigset_t set;
    if (sigemptyset(&set) != 0) {
        TELO_LOG_ERR("sigemptyset [%d]: %m", sig);
        return false;
    }
    if (sigaddset(&set, sig) != 0) {
        TELO_LOG_ERR("sigaddset [%d]: %m", sig);
        return false;
    }
    if (sigprocmask(SIG_UNBLOCK, &set, nullptr) != 0) {
        TELO_LOG_ERR("sigprocmask [%d]: %m", sig);
        return false;
    }
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    if (sigaction(sig, &action, nullptr) != 0) {
        TELO_LOG_ERR("sigaction [%d]: %m", sig);
        return false;
    }
    return true;
}

bool signalHandlerSetFlags(int sig, int flags) {
    return editFlags(sig, [flags](int) { return flags; });
}

bool signalHandlerAddFlags(int sig, int flags, int &oldFlags) {
    return editFlags(sig, [&](int current) {
        oldFlags = current;
        return current | flags;
    });
}

bool signalHandlerRemoveFlags(int sig, int flags, int &oldFlags) {
    return editFlags(sig, [&](int current) {
        oldFlags = current;
        return current & ~flags;
    });
}

ScopedTempSigHandler::ScopedTempSigHandler() : signum(0) {
    memset(&saved, 0, sizeof(saved));
}

ScopedTempSigHandler::~ScopedTempSigHandler() {
    if (signum >= 1) sigaction(signum, &saved, nullptr);
}

bool ScopedTempSigHandler::setSignalHandler(int sig, int flags, void (*handler)(int)) {
    if (signum >= 1) {
        TELO_LOG_ERR("failed to set signal handler: original signum [%d]", signum);
        return false;
    }
    signum = sig;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(sig, &action, &saved);
    return true;
}

}  // namespace Backup
}  // namespace TELO
