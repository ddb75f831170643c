#include "support/child.h"

#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace testsupport {

namespace {

constexpr int kSkipExit = 77;
constexpr size_t kMessageSize = 1 << 16;

std::string prepare(const ChildOptions &options) {
    if (options.privateMounts || options.privateTmp) {
        if (unshare(CLONE_NEWNS) != 0) {
            return std::string("no private mount namespace: ") + strerror(errno);
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("cannot make mounts private: ") + strerror(errno);
        }
    }
    if (options.privateTmp && mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        return std::string("cannot mount a private /tmp: ") + strerror(errno);
    }
    if (options.dropPrivileges) {
        if (geteuid() != 0) return "dropping privileges needs root";
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            return std::string("cannot drop privileges: ") + strerror(errno);
        }
    }
    return std::string();
}

}  // namespace

bool canChangeOwner() {
    return geteuid() == 0;
}

ChildResult runChildBody(const std::function<void()> &body, ChildOptions options) {
    ChildResult result;
    // The child leaves its message in shared memory: nothing to pump while it runs.
    void *shared =
        mmap(nullptr, kMessageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    pid_t pid = shared == MAP_FAILED ? -1 : fork();
    if (pid == 0) {
        std::string message = prepare(options);
        bool skip = !message.empty();
        try {
            if (!skip) body();
        } catch (const ChildFailure &failure) {
            message = failure.message;
        } catch (const std::exception &e) {
            message = std::string("exception: ") + e.what();
        } catch (...) {
            message = "unknown exception";
        }
        snprintf(static_cast<char *>(shared), kMessageSize, "%s", message.c_str());
        _exit(skip ? kSkipExit : message.empty() ? 0 : 1);
    }
    if (pid < 0) {
        result.message = std::string("cannot start a child: ") + strerror(errno);
        result.status = -1;
    } else {
        while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
        }
        result.message = static_cast<const char *>(shared);
        result.skipped = WIFEXITED(result.status) && WEXITSTATUS(result.status) == kSkipExit;
        if (!result.skipped && result.message.empty() && result.status != 0) {
            result.message = "child ended abnormally";
        }
    }
    if (shared != MAP_FAILED) munmap(shared, kMessageSize);
    return result;
}

}  // namespace testsupport
