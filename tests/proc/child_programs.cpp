#include "proc/child_programs.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "support/helpers.h"

extern char **environ;

namespace proctest {

namespace {

bool writeAll(int fd, const std::string &text) {
    const char *p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

// Whether process `pid` has a handler for `sig` (its SigCgt mask).
bool catches(int pid, int sig) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 7, "SigCgt:") != 0) continue;
        unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
        return (mask >> (sig - 1)) & 1;
    }
    return false;
}

}  // namespace

std::set<int> openFds() {
    std::set<int> fds;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return fds;
    while (struct dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        int fd = atoi(entry->d_name);
        if (fd != dirfd(dir)) fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

bool noChildren() {
    int status;
    return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

ChildView parseView(const std::string &text) {
    ChildView view;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t blank = line.find(' ');
        std::string key = line.substr(0, blank);
        std::string value = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (key == "fd") {
            size_t arrow = value.find(" -> ");
            view.fds[std::stoi(value.substr(0, arrow))] = value.substr(arrow + 4);
        } else if (key == "env") {
            view.env.push_back(value);
        } else if (key == "blocked") {
            view.blocked.insert(std::stoi(value));
        } else if (key == "sigpipe") {
            view.sigpipe = value;
        } else if (key == "cwd") {
            view.cwd = value;
        } else if (key == "arg") {
            view.argv.push_back(value);
        } else if (key == "pid") {
            view.pid = std::stoi(value);
        } else if (key == "ppid") {
            view.ppid = std::stoi(value);
        } else if (key == "sid") {
            view.sid = std::stoi(value);
        }
    }
    return view;
}

std::vector<std::string> helper(const std::string &name, const std::vector<std::string> &args) {
    return testsupport::helperCommand(name, args);
}

}  // namespace proctest

TELO_TEST_HELPER(exit) {
    return args.empty() ? 0 : std::stoi(args[0]);
}

TELO_TEST_HELPER(cat) {
    char buffer[4096];
    ssize_t n;
    while ((n = read(0, buffer, sizeof(buffer))) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            return 2;
        }
        if (!proctest::writeAll(1, std::string(buffer, static_cast<size_t>(n)))) return 3;
    }
    return args.empty() ? 0 : std::stoi(args[0]);
}

TELO_TEST_HELPER(describe) {
    if (args.empty()) return 2;
    std::ostringstream out;
    for (int fd : proctest::openFds()) {
        char target[4096] = {};
        std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof(target) - 1) < 0) continue;
        out << "fd " << fd << " -> " << target << "\n";
    }
    for (char **e = environ; *e != nullptr; ++e) out << "env " << *e << "\n";
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sigismember(&mask, sig) == 1) out << "blocked " << sig << "\n";
    }
    struct sigaction pipeAction = {};
    sigaction(SIGPIPE, nullptr, &pipeAction);
    out << "sigpipe "
        << (pipeAction.sa_handler == SIG_DFL   ? "default"
            : pipeAction.sa_handler == SIG_IGN ? "ignore"
                                               : "handler")
        << "\n";
    char cwd[4096] = {};
    if (getcwd(cwd, sizeof(cwd)) != nullptr) out << "cwd " << cwd << "\n";
    for (size_t i = 1; i < args.size(); ++i) out << "arg " << args[i] << "\n";
    out << "pid " << getpid() << "\nppid " << getppid() << "\nsid " << getsid(0) << "\n";

    const std::string &dest = args[0];
    if (dest.compare(0, 3, "fd:") == 0)
        return proctest::writeAll(std::stoi(dest.substr(3)), out.str()) ? 0 : 3;
    int fd = open(dest.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return 4;
    bool ok = proctest::writeAll(fd, out.str());
    close(fd);
    return ok ? 0 : 3;
}

TELO_TEST_HELPER(ignore_eof) {
    (void)args;
    char buffer[256];
    while (read(0, buffer, sizeof(buffer)) > 0) {
    }
    for (;;) pause();
}

TELO_TEST_HELPER(signal_parent) {
    if (args.size() != 2) return 2;
    int sig = args[0] == "INT" ? SIGINT : SIGTERM;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    // The parent's handler may come a moment after this program starts, and a signal that
    // arrives just before the parent waits is not forwarded: keep asking.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (proctest::catches(getppid(), sig)) kill(getppid(), sig);
        struct timespec pause = {0, 20 * 1000 * 1000};
        if (sigtimedwait(&set, nullptr, &pause) == sig) return std::stoi(args[1]);
    }
    return 1;
}
