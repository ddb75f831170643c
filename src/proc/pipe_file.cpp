// The pipe side of SubProcess: a program whose standard input and output are one end of a Unix
// stream socket pair, and the PipeFile handle on the caller's end.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "internal/eintr.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "proc/child_plan.h"
#include "proc/exit_wait.h"
#include "telobackup/proc/subprocess.h"

namespace TELO {
namespace Backup {

using internal::ChildPlan;
using internal::LaunchKind;
using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr char kLogSource[] = "proc/subprocess";

}  // namespace

int SubProcess::callPipeOpen(PipeFile **out) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        TELO_LOG_ERR("create pipe failed, %m");
        return -1;
    }
    UniqueFd parentEnd(sv[0]);
    UniqueFd childEnd(sv[1]);
    // The child's standard input and output are the socket, whatever the record says.
    ChildPlan plan(*d_, LaunchKind::Conversation, {0, 1});
    plan.socketParent = parentEnd.get();
    plan.socketChild = childEnd.get();
    pid_t pid = internal::launch(plan);
    if (pid < 0) {
        TELO_LOG_ERR("fork failed, %m");
        return -1;
    }

    void *memory = calloc(1, sizeof(PipeFile));
    // The zero-filled handle is exactly the constructed one; it is released with free alone,
    // so the SIGPIPE guard is never restored.
    PipeFile *pipe = memory == nullptr ? nullptr : new (memory) PipeFile();
    *out = pipe;
    if (pipe == nullptr) {
        TELO_LOG_ERR("create pipe file io failed");
        return -1;
    }
    if (!pipe->sigpipeGuard.setSignalHandler(SIGPIPE, SA_RESTART, SIG_IGN)) {
        TELO_LOG_ERR("failed to ignore pipe signal");
        return -1;
    }
    childEnd.reset();
    // Already close-on-exec since socketpair, so that no child another thread starts meanwhile
    // inherits it. Set again anyway before the end becomes a stream that outlives this call and
    // must never leak into a later child; the failure line of this step is part of what the
    // call reports.
    int flags = fcntl(parentEnd.get(), F_GETFD);
    if (flags < 0 || fcntl(parentEnd.get(), F_SETFD, flags | FD_CLOEXEC) != 0) {
        TELO_LOG_ERR("set cloexec failed %m");
        TELO_LOG_ERR("create file io failed");
        return -1;
    }
    int remembered = errno;
    FILE *stream = fdopen(parentEnd.get(), "w+");
    if (stream == nullptr) {
        TELO_LOG_ERR("fdopen failed, %m");
        TELO_LOG_ERR("create file io failed");
        return -1;
    }
    parentEnd.release();
    // fdopen looks for the stream's position with lseek, which fails with ESPIPE on a socket;
    // the open itself succeeded, so the caller must not find that errno.
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
