#include "telobackup/proc/subprocess.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>

#include "internal/eintr.h"
#include "internal/syslog.h"
#include "proc/exit_wait.h"
#include "proc/launch.h"
#include "telobackup/stringf.h"

namespace TELO {
namespace Backup {

using internal::ChildEvent;
using internal::ChildReport;
using internal::ChildStarter;
using internal::retryOnEintr;

namespace {

constexpr char kLogSource[] = "proc/subprocess";
constexpr int kChildFailed = 127;

}  // namespace

// ---- The description of a program ---------------------------------------------------------

struct StreamSpec {
    int fd = -1;       // a descriptor of the caller to duplicate, or -1
    std::string path;  // a file to open, or ""
    int mode = 0;      // fchmod bits for a new or existing output file; 0 leaves it
};

class SubProcessPrivate {
  public:
    std::vector<std::string> args_;
    std::map<std::string, std::string> env_;
    StreamSpec stdinSpec_;
    StreamSpec stdoutSpec_;
    StreamSpec stderrSpec_;
};

namespace {

// ---- What the parent prepares for the child ------------------------------------------------

// What the child reports; the parent turns each into its log line.
enum EventKind {
    kChdirFailed,
    kDevNullFailed,
    kOpenFailed,  // arg: the stream
    kFchmodFailed,
    kDup2Failed,  // arg: the stream
    kStdinFailed,
    kCallocFailed,
    kLaunchCommand,
    kExecvFailed,
    kForkFailed,
};

struct StreamPlan {
    int fd;
    const char *path;  // null when none
    int mode;
};

// Everything the child needs, built in the parent so that the child only makes system calls.
struct ChildPlan {
    ChildPlan(const SubProcessPrivate &r, const std::set<int> &keepFds)
        : record(r), keep(keepFds.begin(), keepFds.end()) {
        program = r.args_.empty() ? "" : r.args_[0].c_str();
        argv = static_cast<char **>(calloc(r.args_.size() + 1, sizeof(char *)));
        if (argv == nullptr) {
            argvErrno = errno;
        } else {
            for (size_t i = 0; i < r.args_.size(); ++i) {
                argv[i] = const_cast<char *>(r.args_[i].c_str());
            }
        }
        const StreamSpec *given[3] = {&r.stdinSpec_, &r.stdoutSpec_, &r.stderrSpec_};
        for (int i = 0; i < 3; ++i) {
            streams[i] = {given[i]->fd, given[i]->path.empty() ? nullptr : given[i]->path.c_str(),
                          i == 0 ? 0 : given[i]->mode};
        }
    }
    ~ChildPlan() { free(argv); }
    ChildPlan(const ChildPlan &) = delete;
    ChildPlan &operator=(const ChildPlan &) = delete;

    // The environment the program gets: what clearenv() followed by setenv() of PATH and then
    // of every variable in name order would leave, in the same order.
    void prepareEnvironment() {
        std::vector<std::pair<std::string, std::string>> vars;
        if (const char *path = getenv("PATH")) vars.emplace_back("PATH", path);
        for (const auto &entry : record.env_) {
            // setenv refuses such names.
            if (entry.first.empty() || entry.first.find('=') != std::string::npos) continue;
            auto it = std::find_if(vars.begin(), vars.end(),
                                   [&](const auto &v) { return v.first == entry.first; });
            if (it != vars.end()) {
                it->second = entry.second;
            } else {
                vars.push_back(entry);
            }
        }
        envStrings.reserve(vars.size());
        for (const auto &v : vars) envStrings.push_back(v.first + "=" + v.second);
        for (std::string &s : envStrings) envp.push_back(&s[0]);
        envp.push_back(nullptr);
    }

    const SubProcessPrivate &record;
    const char *program = "";
    char **argv = nullptr;  // null when calloc failed
    int argvErrno = 0;
    std::vector<std::string> envStrings;
    std::vector<char *> envp;
    StreamPlan streams[3] = {};
    std::vector<int> keep;  // sorted

    bool inProcess = false;          // exec(): no child, the environment is applied here
    bool restoreChildFlags = false;  // call(), callBackground(): the caller's SIGCHLD flags
    int childFlags = 0;
    bool newSession = false;
    int socketParent = -1;  // callPipeOpen(): the caller's and the child's ends
    int socketChild = -1;

    ChildReport report;
    ChildStarter *starter = nullptr;
    bool observed = true;  // the report holds the child's events (the launch waited for them)
};

// ---- The child's side: system calls only ----------------------------------------------------

bool isKept(const ChildPlan &plan, int fd) {
    return std::binary_search(plan.keep.begin(), plan.keep.end(), fd);
}

void closeKeepingErrno(int fd) {
    int savedErrno = errno;
    close(fd);
    errno = savedErrno;
}

// Clears close-on-exec, so that a kept descriptor really reaches the program.
void keepAcrossExec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) != 0) fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
}

void setChildFlags(int flags) {
    struct sigaction action = {};
    if (sigaction(SIGCHLD, nullptr, &action) != 0) return;
    action.sa_flags = flags;
    sigaction(SIGCHLD, &action, nullptr);
}

bool redirectStream(int target, const StreamPlan &stream, int nullFd, bool isInput,
                    ChildReport &report) {
    if (stream.fd >= 0) {
        if (retryOnEintr([&] { return dup2(stream.fd, target); }) < 0) {
            report.add(kDup2Failed, errno, target);
            return false;
        }
        return true;
    }
    if (stream.path != nullptr) {
        int fd = isInput
                     ? retryOnEintr([&] { return open(stream.path, O_RDONLY | O_CLOEXEC); })
                     : retryOnEintr([&] {
                           return open(stream.path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
                       });
        if (fd < 0) {
            report.add(kOpenFailed, errno, target);
            return false;
        }
        if (!isInput && stream.mode != 0 && fchmod(fd, static_cast<mode_t>(stream.mode)) != 0) {
            report.add(kFchmodFailed, errno, target);
            closeKeepingErrno(fd);
            return false;
        }
        if (retryOnEintr([&] { return dup2(fd, target); }) < 0) {
            report.add(kDup2Failed, errno, target);
            closeKeepingErrno(fd);
            return false;
        }
        if (fd != target) close(fd);
        return true;
    }
    if (retryOnEintr([&] { return dup2(nullFd, target); }) < 0) {
        report.add(kDup2Failed, errno, target);
        return false;
    }
    return true;
}

// Closes every descriptor but 0..2 and the kept ones; true when it closed `nullFd`.
bool closeOtherDescriptors(const ChildPlan &plan, int nullFd) {
    int dirFd =
        retryOnEintr([] { return open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (dirFd < 0) return false;
    bool closedNull = false;
    alignas(struct dirent64) char buffer[2048];
    for (;;) {
        ssize_t n = getdents64(dirFd, buffer, sizeof(buffer));
        if (n <= 0) break;
        for (ssize_t offset = 0; offset < n;) {
            const struct dirent64 *entry = reinterpret_cast<struct dirent64 *>(buffer + offset);
            offset += entry->d_reclen;
            if (entry->d_name[0] == '.') continue;
            int fd = 0;
            for (const char *c = entry->d_name; *c >= '0' && *c <= '9'; ++c)
                fd = fd * 10 + *c - '0';
            // The launcher's own report channel is close-on-exec and goes at exec.
            if (fd == dirFd || fd == plan.report.channelFd()) continue;
            if (fd <= 2 || isKept(plan, fd)) {
                keepAcrossExec(fd);
                continue;
            }
            close(fd);
            if (fd == nullFd) closedNull = true;
        }
    }
    close(dirFd);
    return closedNull;
}

// exec() only: the process itself gets the environment the program is to see.
void applyEnvironment(const SubProcessPrivate &record) {
    const char *path = getenv("PATH");
    bool hadPath = path != nullptr;
    std::string oldPath = hadPath ? path : "";
    clearenv();
    if (hadPath) setenv("PATH", oldPath.c_str(), 1);
    for (const auto &entry : record.env_) setenv(entry.first.c_str(), entry.second.c_str(), 1);
}

// exec() only: the program starts with SIGPIPE at its default and an empty mask; both come
// back when it could not be started.
int execInProcess(const ChildPlan &plan) {
    struct sigaction byDefault = {}, oldPipe = {};
    byDefault.sa_handler = SIG_DFL;
    sigset_t empty, oldMask;
    sigemptyset(&empty);
    sigaction(SIGPIPE, &byDefault, &oldPipe);
    sigprocmask(SIG_SETMASK, &empty, &oldMask);
    int result = execv(plan.program, plan.argv);
    int savedErrno = errno;
    sigprocmask(SIG_SETMASK, &oldMask, nullptr);
    sigaction(SIGPIPE, &oldPipe, nullptr);
    errno = savedErrno;
    return result;
}

// The steps between fork and exec, in their fixed order. Returns only when something failed.
// In a child it may use nothing but system calls on data prepared by the parent; its lines go
// through the report.
int runChild(ChildPlan &plan) {
    ChildReport &report = plan.report;
    if (chdir("/") != 0) report.add(kChdirFailed, errno);
    if (plan.inProcess) applyEnvironment(plan.record);

    int nullFd = retryOnEintr([] { return open("/dev/null", O_RDWR | O_CLOEXEC); });
    if (nullFd < 0) {
        report.add(kDevNullFailed, errno);
        return 0;
    }
    for (int target = 0; target <= 2; ++target) {
        if (isKept(plan, target)) continue;
        if (!redirectStream(target, plan.streams[target], nullFd, target == 0, report)) {
            if (target == 0) report.add(kStdinFailed, errno);
            closeKeepingErrno(nullFd);
            return 0;
        }
    }
    bool nullClosed = closeOtherDescriptors(plan, nullFd);

    if (plan.argv == nullptr) {
        report.add(kCallocFailed, plan.argvErrno);
        if (!nullClosed) closeKeepingErrno(nullFd);
        return 0;
    }
    report.add(kLaunchCommand, 0);
    if (plan.inProcess) {
        execInProcess(plan);
    } else {
        execve(plan.program, plan.argv, plan.envp.data());
    }
    report.add(kExecvFailed, errno);
    if (!nullClosed) closeKeepingErrno(nullFd);
    return 0;
}

int childBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    if (plan.restoreChildFlags) setChildFlags(plan.childFlags);
    if (plan.socketChild >= 0) {
        close(plan.socketParent);
        retryOnEintr([&] { return dup2(plan.socketChild, 0); });
        retryOnEintr([&] { return dup2(plan.socketChild, 1); });
    }
    runChild(plan);
    internal::exitChild(kChildFailed);
    return kChildFailed;
}

int grandchildBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    setChildFlags(plan.childFlags);
    if (plan.newSession) setsid();
    runChild(plan);
    internal::exitChild(kChildFailed);
    return kChildFailed;
}

// The first child of a detached start only starts the grandchild and ends.
int intermediateBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    if (plan.starter->startNested(grandchildBody, p) < 0) {
        plan.report.add(kForkFailed, errno);
        internal::exitChild(kChildFailed);
    }
    internal::exitChild(0);
    return 0;
}

// ---- The parent's side ---------------------------------------------------------------------

// Writes the line of one event, under the pid of the process where it happened.
void logChildEvent(const ChildEvent &event, const ChildPlan &plan) {
    const SubProcessPrivate &record = plan.record;
    int savedErrno = errno;
    errno = event.error;
    switch (event.kind) {
        case kChdirFailed:
            TELO_LOG_ERR_AS(event.pid, "chdir to / failed %m");
            break;
        case kDevNullFailed:
            TELO_LOG_ERR_AS(event.pid, "open /dev/null failed, %m");
            break;
        case kOpenFailed:
            TELO_LOG_ERR_AS(event.pid, "open [%s] failed, %m", plan.streams[event.arg].path);
            break;
        case kFchmodFailed:
            TELO_LOG_ERR_AS(event.pid, "fchmod failed, %m");
            break;
        case kDup2Failed:
            TELO_LOG_ERR_AS(event.pid, "dup2(%d) failed, %m", event.arg);
            break;
        case kStdinFailed:
            TELO_LOG_ERR_AS(event.pid, "dup2 %d failed, %m", 0);
            break;
        case kCallocFailed:
            TELO_LOG_ERR_AS(event.pid, "calloc failed, %m");
            break;
        case kLaunchCommand:
            TELO_LOG_DEBUG_AS(event.pid, "launch command:");
            for (size_t i = 0; i < record.args_.size(); ++i) {
                TELO_LOG_DEBUG_AS(event.pid, "arg[%d] = [%s]", static_cast<int>(i),
                                  record.args_[i].c_str());
            }
            break;
        case kExecvFailed:
            TELO_LOG_ERR_AS(event.pid, "execv [%s] failed, %m", plan.program);
            break;
        case kForkFailed:
            TELO_LOG_ERR_AS(event.pid, "fork failed, %m");
            break;
    }
    errno = savedErrno;
}

void logEventNow(const ChildEvent &event, void *plan) {
    logChildEvent(event, *static_cast<const ChildPlan *>(plan));
}

// Opening a FIFO for reading waits for a writer, who may well be the caller once the launch has
// returned: such a child is not waited for and writes its own lines.
bool inputMayWait(const ChildPlan &plan) {
    const StreamPlan &in = plan.streams[0];
    if (isKept(plan, 0) || in.fd >= 0 || in.path == nullptr) return false;
    struct stat st;
    return stat(in.path, &st) == 0 && S_ISFIFO(st.st_mode);
}

// Starts a child running `body` on `plan` and writes the lines it reported. The pid, or -1
// with errno.
pid_t launch(ChildPlan &plan, int (*body)(void *)) {
    plan.prepareEnvironment();
    bool waitForExec = !inputMayWait(plan);
    plan.observed = waitForExec;
    if (!waitForExec) plan.report.setImmediateSink(logEventNow, &plan);
    ChildStarter starter(body, &plan, plan.report, waitForExec);
    plan.starter = &starter;
    pid_t pid = starter.start();
    int savedErrno = errno;
    for (int i = 0; i < plan.report.size(); ++i) logChildEvent(plan.report.at(i), plan);
    errno = savedErrno;
    return pid;
}

// The step that kept the program of a launch from running, from the events the child reported.
LaunchFailure failureOf(const ChildPlan &plan) {
    LaunchFailure failure;
    if (!plan.observed) {
        failure.step = LaunchFailure::kUnobserved;
        return failure;
    }
    for (int i = 0; i < plan.report.size(); ++i) {
        const ChildEvent &event = plan.report.at(i);
        LaunchFailure::Step step;
        switch (event.kind) {
            case kDevNullFailed:
                step = LaunchFailure::kDevNull;
                break;
            case kOpenFailed:
                step = LaunchFailure::kOpenStream;
                break;
            case kFchmodFailed:
                step = LaunchFailure::kModeStream;
                break;
            case kDup2Failed:
                step = LaunchFailure::kDupStream;
                break;
            case kCallocFailed:
                step = LaunchFailure::kArguments;
                break;
            case kExecvFailed:
                step = LaunchFailure::kExec;
                break;
            default:
                continue;  // not the end of the child (a trace, a failed chdir, a restatement)
        }
        bool onStream = step == LaunchFailure::kOpenStream || step == LaunchFailure::kModeStream ||
                        step == LaunchFailure::kDupStream;
        failure = {step, event.error, onStream ? event.arg : -1};
        break;  // the first failure ends the child
    }
    return failure;
}

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

void logAndKeepErrno(const char *what) {
    int savedErrno = errno;
    TELO_LOG_ERR("%s", what);
    errno = savedErrno;
}

}  // namespace

// ---- Construction and arguments ------------------------------------------------------------

SubProcess::SubProcess(const std::string &program) : d(new SubProcessPrivate) {
    d->args_.push_back(program);
}

SubProcess::SubProcess(const char *program) : d(new SubProcessPrivate) {
    if (program == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
    d->args_.emplace_back(program);
}

SubProcess::SubProcess(std::list<std::string> args) : d(new SubProcessPrivate) {
    d->args_.assign(args.begin(), args.end());
}

SubProcess::SubProcess(std::vector<std::string> args) : d(new SubProcessPrivate) {
    d->args_ = std::move(args);
}

SubProcess::~SubProcess() = default;

SubProcess::SubProcess(SubProcess &&other) noexcept = default;
SubProcess &SubProcess::operator=(SubProcess &&other) noexcept = default;

void SubProcess::addArg(const std::string &arg) {
    d->args_.push_back(arg);
}

void SubProcess::addArgList(const char *first, ...) {
    if (first == nullptr) return;
    d->args_.emplace_back(first);
    va_list ap;
    va_start(ap, first);
    while (const char *arg = va_arg(ap, const char *)) d->args_.emplace_back(arg);
    va_end(ap);
}

void SubProcess::addFormatArg(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string arg = vstringf(format, ap);
    va_end(ap);
    d->args_.push_back(std::move(arg));
}

// ---- Streams and environment ---------------------------------------------------------------

void SubProcess::setStdInput(const std::string &path) {
    d->stdinSpec_ = {-1, path, 0};
}

void SubProcess::setStdInput(int fd) {
    d->stdinSpec_ = {fd, std::string(), 0};
}

void SubProcess::setStdOutput(const std::string &path, int mode) {
    d->stdoutSpec_ = {-1, path, mode};
}

void SubProcess::setStdOutput(int fd) {
    d->stdoutSpec_ = {fd, std::string(), 0};
}

void SubProcess::setStdError(const std::string &path, int mode) {
    d->stderrSpec_ = {-1, path, mode};
}

void SubProcess::setStdError(int fd) {
    d->stderrSpec_ = {fd, std::string(), 0};
}

void SubProcess::setEnv(const std::string &name, const std::string &value) {
    d->env_[name] = value;
}

void SubProcess::printEnv() {
    for (const auto &entry : d->env_) {
        TELO_LOG_ERR("env: %s", (entry.first + "=" + entry.second).c_str());
    }
}

std::string SubProcess::getCmdline() const {
    std::string line;
    for (size_t i = 0; i < d->args_.size(); ++i) {
        std::string arg = d->args_[i];
        boost::algorithm::replace_all(arg, "\"", "\\\"");
        if (i > 0) line += ' ';
        line += '"';
        line += arg;
        line += '"';
    }
    return line;
}

// ---- Starting ------------------------------------------------------------------------------

namespace {

// Puts the caller's SIGCHLD flags back on a failure path, keeping the failure's errno.
void restoreChildFlags(int flags) {
    int savedErrno = errno;
    signalHandlerSetFlags(SIGCHLD, flags);
    errno = savedErrno;
}

}  // namespace

int SubProcess::call() const {
    LaunchFailure ignored;
    return call(ignored);
}

int SubProcess::call(LaunchFailure &failure) const {
    failure = LaunchFailure();
    int oldFlags = 0;
    if (!signalHandlerRemoveFlags(SIGCHLD, SA_NOCLDWAIT, oldFlags)) {
        TELO_LOG_ERR("remove SA_RESTART failed, %m");
        return -1;
    }
    ChildPlan plan(*d, {});
    plan.restoreChildFlags = true;
    plan.childFlags = oldFlags;
    pid_t pid = launch(plan, childBody);
    if (pid < 0) {
        failure = {LaunchFailure::kFork, errno, -1};
        TELO_LOG_ERR("fork failed, %m");
        restoreChildFlags(oldFlags);
        return -1;
    }
    failure = failureOf(plan);

    terminationRequested = 0;
    struct sigaction action = {};
    action.sa_handler = onTermWhileWaiting;
    if (sigaction(SIGTERM, &action, &previousTermAction) != 0) {
        TELO_LOG_ERR("sigaction failed, %m");
        restoreChildFlags(oldFlags);
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
            sleep(0);
        }
    }

    if (sigaction(SIGTERM, &previousTermAction, nullptr) != 0) {
        TELO_LOG_ERR("sigaction failed, %m");
    }
    memset(&previousTermAction, 0, sizeof(previousTermAction));
    signalHandlerSetFlags(SIGCHLD, oldFlags);
    return result;
}

bool SubProcess::callBackground(bool newSession) const {
    int oldFlags = 0;
    if (!signalHandlerRemoveFlags(SIGCHLD, SA_NOCLDWAIT, oldFlags)) {
        TELO_LOG_ERR("remove SA_RESTART failed, %m");
        return true;
    }
    ChildPlan plan(*d, {});
    plan.restoreChildFlags = true;
    plan.childFlags = oldFlags;
    plan.newSession = newSession;
    pid_t pid = launch(plan, intermediateBody);
    if (pid < 0) {
        TELO_LOG_ERR("fork failed, %m");
        restoreChildFlags(oldFlags);
        return false;
    }
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(pid, &status, 0);
    } while (waited == -1);
    signalHandlerSetFlags(SIGCHLD, oldFlags);
    return waited == pid && (status & 0x7f) == 0 && ((status >> 8) & 0xff) == 0;
}

int SubProcess::callNoWait(const std::set<int> &keepFds) const {
    LaunchFailure ignored;
    return callNoWait(keepFds, ignored);
}

int SubProcess::callNoWait(const std::set<int> &keepFds, LaunchFailure &failure) const {
    ChildPlan plan(*d, keepFds);
    pid_t pid = launch(plan, childBody);
    if (pid < 0) {
        failure = {LaunchFailure::kFork, errno, -1};
        TELO_LOG_ERR("fork failed, %m");
        return -1;
    }
    failure = failureOf(plan);
    return pid;
}

int SubProcess::exec() const {
    ChildPlan plan(*d, {});
    plan.inProcess = true;
    plan.report.setImmediateSink(logEventNow, &plan);
    runChild(plan);
    return 0;
}

// ---- Pipes ---------------------------------------------------------------------------------

int SubProcess::callPipeOpen(PipeFile **out) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        TELO_LOG_ERR("create pipe failed, %m");
        return -1;
    }
    ChildPlan plan(*d, {0, 1});
    plan.socketParent = sv[0];
    plan.socketChild = sv[1];
    pid_t pid = launch(plan, childBody);
    if (pid < 0) {
        TELO_LOG_ERR("fork failed, %m");
        closeKeepingErrno(sv[0]);
        closeKeepingErrno(sv[1]);
        return -1;
    }

    void *memory = calloc(1, sizeof(PipeFile));
    // The zero-filled handle is exactly the constructed one; it is released with free alone,
    // so the SIGPIPE guard is never restored.
    PipeFile *pipe = memory == nullptr ? nullptr : new (memory) PipeFile();
    *out = pipe;
    if (pipe == nullptr) {
        logAndKeepErrno("create pipe file io failed");
        closeKeepingErrno(sv[0]);
        closeKeepingErrno(sv[1]);
        return -1;
    }
    if (!pipe->sigpipeGuard.setSignalHandler(SIGPIPE, SA_RESTART, SIG_IGN)) {
        logAndKeepErrno("failed to ignore pipe signal");
        closeKeepingErrno(sv[0]);
        closeKeepingErrno(sv[1]);
        return -1;
    }
    close(sv[1]);
    int flags = fcntl(sv[0], F_GETFD);
    if (flags < 0 || fcntl(sv[0], F_SETFD, flags | FD_CLOEXEC) != 0) {
        TELO_LOG_ERR("set cloexec failed %m");
        logAndKeepErrno("create file io failed");
        closeKeepingErrno(sv[0]);
        return -1;
    }
    int remembered = errno;
    FILE *stream = fdopen(sv[0], "w+");
    if (stream == nullptr) {
        TELO_LOG_ERR("fdopen failed, %m");
        logAndKeepErrno("create file io failed");
        closeKeepingErrno(sv[0]);
        return -1;
    }
    if (errno == ESPIPE) errno = remembered;
    setvbuf(stream, nullptr, _IONBF, 0);
    pipe->stream = stream;
    return pid;
}

int SubProcess::callPipeClose(PipeFile *pipe, int pid) {
    if (pipe != nullptr) {
        if (pipe->stream != nullptr) fclose(pipe->stream);
        free(pipe);
    }
    if (pid == -1) return -1;

    // Closing the stream gave the child end of file, which normally ends it within the grace
    // period.
    int status = 0;
    internal::ExitWait wait(pid);
    for (;;) {
        pid_t waited = waitpid(pid, &status, WNOHANG);
        if (waited > 0) return status;
        if (waited == 0) {
            if (!wait.pause()) break;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    kill(pid, SIGTERM);
    pid_t waited = retryOnEintr([&] { return waitpid(pid, &status, WNOHANG); });
    if (waited > 0) return status;
    TELO_LOG_ERR("waitpid [%d] return [%d]", pid, waited);
    return -1;
}

size_t SubProcess::readPipe(void *buffer, size_t size, size_t count, PipeFile *pipe) {
    if (size == 0) return 0;
    return fread(buffer, size, count, pipe->stream);
}

size_t SubProcess::writePipe(const void *buffer, size_t size, size_t count, PipeFile *pipe) {
    if (size == 0) return 0;
    return fwrite(buffer, size, count, pipe->stream);
}

void SubProcess::flushPipe(PipeFile *pipe) {
    if (pipe != nullptr && pipe->stream != nullptr) fflush(pipe->stream);
}

int SubProcess::getReadFD(PipeFile *pipe) {
    if (pipe == nullptr || pipe->stream == nullptr) return -1;
    return fileno(pipe->stream);
}

}  // namespace Backup
}  // namespace TELO
