#include "proc/child_plan.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "internal/errno_saver.h"
#include "internal/syslog.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// The launcher's lines keep the source name of the public class, wherever their code lives.
constexpr char kLogSource[] = "proc/subprocess";

// Opening a FIFO for reading waits for a writer, who may well be the caller once the launch has
// returned: such a child is not waited for and writes its own lines.
bool inputMayWait(const ChildPlan &plan) {
    const StreamPlan &in = plan.streams[0];
    if (plan.keeps(0) || in.fd >= 0 || in.path == nullptr) return false;
    struct stat st;
    return stat(in.path, &st) == 0 && S_ISFIFO(st.st_mode);
}

}  // namespace

EnvironmentVars programEnvironment(const SubProcessPrivate &record) {
    EnvironmentVars vars;
    if (const char *path = getenv("PATH")) vars.emplace_back("PATH", path);
    for (const auto &entry : record.env_) {
        if (entry.first.empty() || entry.first.find('=') != std::string::npos) continue;
        auto it = std::find_if(vars.begin(), vars.end(),
                               [&](const auto &v) { return v.first == entry.first; });
        if (it != vars.end()) {
            it->second = entry.second;
        } else {
            vars.push_back(entry);
        }
    }
    return vars;
}

ChildPlan::ChildPlan(const SubProcessPrivate &r, LaunchKind launchKind,
                     const std::set<int> &keepFds)
    : record(r), kind(launchKind), keep(keepFds.begin(), keepFds.end()) {
    program = r.args_.empty() ? "" : r.args_[0].c_str();
    argv.reset(static_cast<char **>(calloc(r.args_.size() + 1, sizeof(char *))));
    if (!argv) {
        argvErrno = errno;
    } else {
        for (size_t i = 0; i < r.args_.size(); ++i) {
            argv.get()[i] = const_cast<char *>(r.args_[i].c_str());
        }
    }
    const StreamSpec *given[3] = {&r.stdinSpec_, &r.stdoutSpec_, &r.stderrSpec_};
    for (int i = 0; i < 3; ++i) {
        streams[i] = {given[i]->fd, given[i]->path.empty() ? nullptr : given[i]->path.c_str(),
                      i == 0 ? 0 : given[i]->mode};
    }
    environment = programEnvironment(r);
    if (kind == LaunchKind::InProcess) {
        sink = &immediateLog;  // the steps run here, so each line can be written as it comes
        return;                // the environment is applied with setenv, not handed to execve
    }
    envStrings.reserve(environment.size());
    for (const auto &v : environment) envStrings.push_back(v.first + "=" + v.second);
    for (std::string &s : envStrings) envp.push_back(&s[0]);
    envp.push_back(nullptr);
}

bool ChildPlan::keeps(int fd) const {
    return std::binary_search(keep.begin(), keep.end(), fd);
}

void logChildEvent(const ChildEvent &event, const ChildPlan &plan) {
    const SubProcessPrivate &record = plan.record;
    ErrnoSaver keep;
    errno = event.error;  // for %m
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
}

void logChildEventNow(const ChildEvent &event, void *plan) {
    logChildEvent(event, *static_cast<const ChildPlan *>(plan));
}

pid_t launch(ChildPlan &plan) {
    int (*body)(void *) = plan.kind == LaunchKind::Detach ? intermediateBody : childBody;
    pid_t pid;
    if (inputMayWait(plan)) {
        plan.sink = &plan.immediateLog;
        ChildStarter starter(body, &plan);
        plan.starter = &starter;
        pid = starter.start();
    } else {
        ChildStarter starter(body, &plan, plan.report);
        plan.starter = &starter;
        pid = starter.start();
    }
    plan.starter = nullptr;
    ErrnoSaver keep;  // the start's errno, not the logger's
    const ChildEvents &events = plan.report.events();
    for (int i = 0; i < events.size(); ++i) logChildEvent(events.at(i), plan);
    return pid;
}

LaunchFailure failureOf(const ChildPlan &plan) {
    LaunchFailure failure;
    if (!plan.observed()) {
        failure.step = LaunchFailure::kUnobserved;
        return failure;
    }
    const ChildEvents &events = plan.report.events();
    for (int i = 0; i < events.size(); ++i) {
        const ChildEvent &event = events.at(i);
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

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
