// ============================================================================================
// The child's side of a launch: everything between fork and exec.
//
// Only system calls on data the parent prepared in the ChildPlan run here: no allocation, no
// lock, no logging, no exception. The child may share the caller's memory and run while other
// threads of the caller hold locks, so anything more could corrupt the caller or hang for ever.
// What the child has to say goes to the plan's EventSink. The one exception is exec(), which
// runs the same steps in the caller's own process and applies the environment with setenv.
// ============================================================================================
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "proc/child_plan.h"
#include "proc/child_signals.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// The exit code of a child whose program could not be started.
constexpr int kChildFailed = 127;

// The buffer for reading /proc/self/fd; it lives on the child's own stack. Any size works.
constexpr size_t kDirentBufferSize = 2048;

// The mode of an output file the child creates; fchmod to the caller's mode follows.
constexpr mode_t kNewOutputFileMode = 0600;

void closeKeepingErrno(int fd) {
    ErrnoSaver keep;
    close(fd);
}

// Clears close-on-exec, so that a kept descriptor really reaches the program.
void keepAcrossExec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) != 0) fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
}

bool redirectStream(int target, const StreamPlan &stream, int nullFd, bool isInput,
                    EventSink &sink) {
    if (stream.fd >= 0) {
        if (retryOnEintr([&] { return dup2(stream.fd, target); }) < 0) {
            sink.add(kDup2Failed, errno, target);
            return false;
        }
        return true;
    }
    if (stream.path != nullptr) {
        int fd = isInput ? retryOnEintr([&] { return open(stream.path, O_RDONLY | O_CLOEXEC); })
                         : retryOnEintr([&] {
                               return open(stream.path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC,
                                           kNewOutputFileMode);
                           });
        if (fd < 0) {
            sink.add(kOpenFailed, errno, target);
            return false;
        }
        if (!isInput && stream.mode != 0 && fchmod(fd, static_cast<mode_t>(stream.mode)) != 0) {
            sink.add(kFchmodFailed, errno, target);
            closeKeepingErrno(fd);
            return false;
        }
        if (retryOnEintr([&] { return dup2(fd, target); }) < 0) {
            sink.add(kDup2Failed, errno, target);
            closeKeepingErrno(fd);
            return false;
        }
        if (fd != target) close(fd);
        return true;
    }
    if (retryOnEintr([&] { return dup2(nullFd, target); }) < 0) {
        sink.add(kDup2Failed, errno, target);
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
    alignas(struct dirent64) char buffer[kDirentBufferSize];
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
            if (fd == dirFd || fd == plan.sink->channelFd()) continue;
            if (fd <= 2 || plan.keeps(fd)) {
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
void applyEnvironment(const EnvironmentVars &vars) {
    clearenv();
    for (const auto &v : vars) setenv(v.first.c_str(), v.second.c_str(), 1);
}

// exec() only: the program starts with SIGPIPE at its default and an empty mask; both come
// back when it could not be started.
int execInProcess(const ChildPlan &plan) {
    SignalsBeforeExec before;
    resetSignalsForExec(&before);
    int result = execv(plan.program, plan.argv.get());
    restoreSignalsAfterFailedExec(before);
    return result;
}

int grandchildBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    setChildFlagsInChild(plan.childFlags);
    if (plan.newSession) setsid();
    runChild(plan);
    exitChild(kChildFailed);
    return kChildFailed;
}

}  // namespace

int runChild(ChildPlan &plan) {
    EventSink &sink = *plan.sink;
    if (chdir("/") != 0) sink.add(kChdirFailed, errno);
    if (plan.kind == LaunchKind::InProcess) applyEnvironment(plan.environment);

    int nullFd = retryOnEintr([] { return open("/dev/null", O_RDWR | O_CLOEXEC); });
    if (nullFd < 0) {
        sink.add(kDevNullFailed, errno);
        return 0;
    }
    for (int target = 0; target <= 2; ++target) {
        if (plan.keeps(target)) continue;
        if (!redirectStream(target, plan.streams[target], nullFd, target == 0, sink)) {
            if (target == 0) sink.add(kStdinFailed, errno);
            closeKeepingErrno(nullFd);
            return 0;
        }
    }
    bool nullClosed = closeOtherDescriptors(plan, nullFd);

    if (!plan.argv) {
        sink.add(kCallocFailed, plan.argvErrno);
        if (!nullClosed) closeKeepingErrno(nullFd);
        return 0;
    }
    sink.add(kLaunchCommand, 0);
    if (plan.kind == LaunchKind::InProcess) {
        execInProcess(plan);
    } else {
        execve(plan.program, plan.argv.get(), plan.envp.data());
    }
    sink.add(kExecvFailed, errno);
    if (!nullClosed) closeKeepingErrno(nullFd);
    return 0;
}

int childBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    if (plan.kind == LaunchKind::Wait) setChildFlagsInChild(plan.childFlags);
    if (plan.kind == LaunchKind::Conversation) {
        close(plan.socketParent);
        retryOnEintr([&] { return dup2(plan.socketChild, 0); });
        retryOnEintr([&] { return dup2(plan.socketChild, 1); });
    }
    runChild(plan);
    exitChild(kChildFailed);
    return kChildFailed;
}

int intermediateBody(void *p) {
    ChildPlan &plan = *static_cast<ChildPlan *>(p);
    if (plan.starter->startNested(grandchildBody, p) < 0) {
        plan.sink->add(kForkFailed, errno);
        exitChild(kChildFailed);
    }
    exitChild(0);
    return 0;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
