#include "support/child.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

namespace testsupport {

namespace {

constexpr int kSkipExit = 77;
constexpr size_t kMessageSize = 1 << 16;

// Mounts a private /tmp. A checkout under /tmp (a common place to clone to) would vanish under
// it, and with it every helper program the test runs: the directory right under /tmp that holds
// this test's binary is bound back at its path.
std::string mountPrivateTmp() {
    char exe[PATH_MAX] = {};
    std::string path(exe, std::max<ssize_t>(0, readlink("/proc/self/exe", exe, sizeof(exe) - 1)));
    std::string checkout =
        path.compare(0, 5, "/tmp/") == 0 ? path.substr(0, path.find('/', 5)) : "";
    int held = checkout.empty() ? -1 : open(checkout.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (!checkout.empty() && held < 0) return "cannot hold " + checkout + ": " + strerror(errno);
    std::string problem;
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        problem = std::string("cannot mount a private /tmp: ") + strerror(errno);
    } else if (held >= 0) {
        std::string source = "/proc/self/fd/" + std::to_string(held);
        if (mkdir(checkout.c_str(), 0755) != 0 ||
            mount(source.c_str(), checkout.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            problem = "cannot keep " + checkout + " under the private /tmp: " + strerror(errno);
        }
    }
    if (held >= 0) close(held);
    return problem;
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
        std::string problem = mountPrivateTmp();
        if (!problem.empty()) return problem;
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
