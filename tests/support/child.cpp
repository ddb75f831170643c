#include "support/child.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace testsupport {

namespace {

constexpr int kSkipExit = 77;

void report(int fd, const std::string &message) {
    const char *p = message.data();
    size_t left = message.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

std::string prepare(const ChildOptions &options) {
    if (options.privateMounts || options.privateTmp) {
        if (unshare(CLONE_NEWNS) != 0) {
            return std::string("no private mount namespace: ") + strerror(errno);
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("cannot make mounts private: ") + strerror(errno);
        }
    }
    if (options.privateTmp) {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
            return std::string("cannot mount a private /tmp: ") + strerror(errno);
        }
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

ChildResult runInChild(const std::function<std::string()> &body, ChildOptions options) {
    ChildResult result;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.message = std::string("pipe2: ") + strerror(errno);
        result.status = -1;
        return result;
    }
    pid_t pid = fork();
    if (pid < 0) {
        result.message = std::string("fork: ") + strerror(errno);
        result.status = -1;
        close(fds[0]);
        close(fds[1]);
        return result;
    }
    if (pid == 0) {
        close(fds[0]);
        std::string skip = prepare(options);
        if (!skip.empty()) {
            report(fds[1], skip);
            _exit(kSkipExit);
        }
        std::string message;
        try {
            message = body();
        } catch (const std::exception &e) {
            message = std::string("exception: ") + e.what();
        } catch (...) {
            message = "unknown exception";
        }
        report(fds[1], message);
        _exit(message.empty() ? 0 : 1);
    }
    close(fds[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof(buffer))) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        result.message.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    result.skipped = WIFEXITED(result.status) && WEXITSTATUS(result.status) == kSkipExit;
    if (!result.skipped && result.message.empty() && result.status != 0) {
        result.message = "child ended abnormally";
    }
    return result;
}

}  // namespace testsupport
