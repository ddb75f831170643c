#include "telobackup/proc/subprocess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/algorithm/string/replace.hpp>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "internal/syslog.h"
#include "proc/child_plan.h"
#include "proc/child_signals.h"
#include "telobackup/stringf.h"

namespace TELO {
namespace Backup {

using internal::ChildFlagsScope;
using internal::ChildPlan;
using internal::failureOf;
using internal::launch;
using internal::LaunchKind;

namespace {

constexpr char kLogSource[] = "proc/subprocess";

// State of call() that its SIGTERM handler reads; one per process.
volatile sig_atomic_t terminationRequested = 0;
struct sigaction previousTermAction;

void onTermWhileWaiting(int sig) {
    if (sig == SIGTERM) terminationRequested = 1;
    const struct sigaction &previous = previousTermAction;
    // SIG_IGN is not a function to call; SIG_DFL (0) means none.
    if (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN) return;
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        siginfo_t info = {};
        info.si_signo = sig;
        info.si_code = SI_USER;
        previous.sa_sigaction(sig, &info, nullptr);
    } else {
        previous.sa_handler(sig);
    }
}

}  // namespace

// ---- Construction and arguments ------------------------------------------------------------

SubProcess::SubProcess(const std::string &program) : d_(new SubProcessPrivate) {
    d_->args_.push_back(program);
}

SubProcess::SubProcess(const char *program) : d_(new SubProcessPrivate) {
    if (program == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
    d_->args_.emplace_back(program);
}

SubProcess::SubProcess(std::list<std::string> args) : d_(new SubProcessPrivate) {
    d_->args_.assign(args.begin(), args.end());
}

SubProcess::SubProcess(std::vector<std::string> args) : d_(new SubProcessPrivate) {
    d_->args_ = std::move(args);
}

SubProcess::~SubProcess() = default;

SubProcess::SubProcess(SubProcess &&other) noexcept = default;
SubProcess &SubProcess::operator=(SubProcess &&other) noexcept = default;

void SubProcess::addArg(const std::string &arg) {
    d_->args_.push_back(arg);
}

void SubProcess::addArgList(const char *first, ...) {
    if (first == nullptr) return;
    d_->args_.emplace_back(first);
    va_list ap;
    va_start(ap, first);
    while (const char *arg = va_arg(ap, const char *)) d_->args_.emplace_back(arg);
    va_end(ap);
}

void SubProcess::addFormatArg(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string arg = vstringf(format, ap);
    va_end(ap);
    d_->args_.push_back(std::move(arg));
}

// ---- Streams and environment ---------------------------------------------------------------

void SubProcess::setStdInput(const std::string &path) {
    d_->stdinSpec_ = {-1, path, 0};
}

void SubProcess::setStdInput(int fd) {
    d_->stdinSpec_ = {fd, std::string(), 0};
}

void SubProcess::setStdOutput(const std::string &path, int mode) {
    d_->stdoutSpec_ = {-1, path, mode};
}

void SubProcess::setStdOutput(int fd) {
    d_->stdoutSpec_ = {fd, std::string(), 0};
}

void SubProcess::setStdError(const std::string &path, int mode) {
    d_->stderrSpec_ = {-1, path, mode};
}

void SubProcess::setStdError(int fd) {
    d_->stderrSpec_ = {fd, std::string(), 0};
}

void SubProcess::setEnv(const std::string &name, const std::string &value) {
    d_->env_[name] = value;
}

void SubProcess::printEnv() {
    for (const auto &entry : d_->env_) {
        TELO_LOG_ERR("env: %s", (entry.first + "=" + entry.second).c_str());
    }
}

std::string SubProcess::getCmdline() const {
    std::string line;
    for (size_t i = 0; i < d_->args_.size(); ++i) {
        std::string arg = d_->args_[i];
        boost::algorithm::replace_all(arg, "\"", "\\\"");
        if (i > 0) line += ' ';
        line += '"';
        line += arg;
        line += '"';
    }
    return line;
}

// ---- Starting ------------------------------------------------------------------------------

int SubProcess::call() const {
    LaunchFailure ignored;
    return call(ignored);
}

int SubProcess::call(LaunchFailure &failure) const {
    failure = LaunchFailure();
    ChildFlagsScope childFlags(ChildFlagsScope::Style::kLoggedAllFlags);
    if (!childFlags.held()) {
        TELO_LOG_ERR("remove SA_RESTART failed, %m");
        return -1;
    }
    ChildPlan plan(*d_, LaunchKind::Wait, {});
    plan.childFlags = childFlags.savedFlags();
    pid_t pid = launch(plan);
    if (pid < 0) {
        failure = {LaunchFailure::kFork, errno, -1};
        TELO_LOG_ERR("fork failed, %m");
        return -1;
    }
    failure = failureOf(plan);

    terminationRequested = 0;
    struct sigaction action = {};
    action.sa_handler = onTermWhileWaiting;
    if (sigaction(SIGTERM, &action, &previousTermAction) != 0) {
        TELO_LOG_ERR("sigaction failed, %m");
        return -1;
    }

    // Only the child's end leaves this loop: a SIGCHLD set to SIG_IGN, or someone else reaping
    // the child, makes it spin for ever (see the header).
    int result;
    for (;;) {
        int status = 0;
        pid_t waited = waitpid(pid, &status, 0);
        if (waited != -1) {
            result = waited == pid ? status : -1;
            break;
        }
        if (errno == EINTR && terminationRequested) {
            kill(pid, SIGTERM);
            // sleep(0) returns at once; it only offers the scheduler a point to run the child
            // on the signal before the wait blocks again. Nothing depends on it.
            sleep(0);
        }
    }

    if (sigaction(SIGTERM, &previousTermAction, nullptr) != 0) {
        TELO_LOG_ERR("sigaction failed, %m");
    }
    memset(&previousTermAction, 0, sizeof(previousTermAction));
    return result;  // the SIGCHLD flags come back last, as the scope ends
}

bool SubProcess::callBackground(bool newSession) const {
    ChildFlagsScope childFlags(ChildFlagsScope::Style::kLoggedAllFlags);
    if (!childFlags.held()) {
        TELO_LOG_ERR("remove SA_RESTART failed, %m");
        return true;
    }
    ChildPlan plan(*d_, LaunchKind::Detach, {});
    plan.childFlags = childFlags.savedFlags();
    plan.newSession = newSession;
    pid_t pid = launch(plan);
    if (pid < 0) {
        TELO_LOG_ERR("fork failed, %m");
        return false;
    }
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(pid, &status, 0);
    } while (waited == -1);
    // The intermediate child exits 0 once the grandchild is started, 127 when it could not be.
    return waited == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int SubProcess::callNoWait(const std::set<int> &keepFds) const {
    LaunchFailure ignored;
    return callNoWait(keepFds, ignored);
}

int SubProcess::callNoWait(const std::set<int> &keepFds, LaunchFailure &failure) const {
    ChildPlan plan(*d_, LaunchKind::NoWait, keepFds);
    pid_t pid = launch(plan);
    if (pid < 0) {
        failure = {LaunchFailure::kFork, errno, -1};
        TELO_LOG_ERR("fork failed, %m");
        return -1;
    }
    failure = failureOf(plan);
    return pid;
}

int SubProcess::exec() const {
    ChildPlan plan(*d_, LaunchKind::InProcess, {});
    internal::runChild(plan);
    return 0;
}

}  // namespace Backup
}  // namespace TELO
