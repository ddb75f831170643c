// Child programs for the process tests: helper modes of the test binary itself (no shell).
//   exit CODE               exits with CODE
//   cat [CODE]              copies stdin to stdout until end of file, then exits with CODE
//   describe DEST           reports on itself to DEST (a path, appended, or "fd:N"), one fact a
//                           line: "fd N TARGET", "env NAME=VALUE", "pid N", "sid N", and its
//                           blocked and ignored signal masks as "SigBlk: HEX", "SigIgn: HEX"
//   ignore_eof [deaf]       reads stdin to end of file, then waits to be killed; "deaf" ignores
//                           SIGTERM too
//   signal_parent SIG CODE  sends SIG ("TERM" or "INT") to its parent, once the parent catches
//                           it, until SIG comes back; then exits with CODE
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/process.h"

namespace {

int codeIn(const std::vector<std::string> &args) {
    return args.empty() ? 0 : std::stoi(args[0]);
}

// The line of /proc/<pid>/status that starts with `key`, tab and all.
std::string statusLine(const std::string &pid, const std::string &key) {
    std::ifstream status("/proc/" + pid + "/status");
    std::string line;
    while (std::getline(status, line) && line.compare(0, key.size(), key) != 0) {
    }
    return line;
}

}  // namespace

TELO_TEST_HELPER(exit) {
    return codeIn(args);
}

TELO_TEST_HELPER(cat) {
    char buffer[4096];
    for (ssize_t n; (n = read(0, buffer, sizeof(buffer))) > 0;) {
        if (write(1, buffer, static_cast<size_t>(n)) != n) return 3;
    }
    return codeIn(args);
}

TELO_TEST_HELPER(describe) {
    std::ostringstream out;
    for (int fd : testsupport::openFds()) {
        char target[4096] = {};
        if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, 4095) > 0) {
            out << "fd " << fd << " " << target << "\n";
        }
    }
    for (char **e = environ; *e != nullptr; ++e) out << "env " << *e << "\n";
    out << "pid " << getpid() << "\nsid " << getsid(0) << "\n";
    for (const char *key : {"SigBlk:", "SigIgn:"}) out << statusLine("self", key) << "\n";
    std::string text = out.str();
    int fd = args[0].compare(0, 3, "fd:") == 0
                 ? std::stoi(args[0].substr(3))
                 : open(args[0].c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 3;
}

TELO_TEST_HELPER(ignore_eof) {
    if (!args.empty()) signal(SIGTERM, SIG_IGN);
    char buffer[256];
    while (read(0, buffer, sizeof(buffer)) > 0) {
    }
    for (;;) pause();
}

TELO_TEST_HELPER(signal_parent) {
    int sig = args[0] == "INT" ? SIGINT : SIGTERM;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    // The parent's handler comes a moment after this program starts, and a signal arriving just
    // before the parent waits is not forwarded: keep asking.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::string caught = statusLine(std::to_string(getppid()), "SigCgt:").substr(7);
        if ((std::stoull(caught, nullptr, 16) >> (sig - 1)) & 1) kill(getppid(), sig);
        struct timespec pause = {0, 20 * 1000 * 1000};
        if (sigtimedwait(&set, nullptr, &pause) == sig) return std::stoi(args[1]);
    }
    return 1;
}
