#include "support/process.h"

#include <dirent.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iostream>

namespace testsupport {

namespace {

constexpr char kHelperSwitch[] = "--telo-helper=";

std::map<std::string, HelperFunction> &helperRegistry() {
    static auto *registry = new std::map<std::string, HelperFunction>;
    return *registry;
}

std::string contentOf(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = pread(fd, buffer, sizeof(buffer), text.size())) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

}  // namespace

bool registerHelper(const char *name, HelperFunction fn) {
    helperRegistry()[name] = fn;
    return true;
}

bool runHelperIfAsked(int argc, char **argv, int &exitCode) {
    if (argc < 2 || strncmp(argv[1], kHelperSwitch, strlen(kHelperSwitch)) != 0) return false;
    auto it = helperRegistry().find(argv[1] + strlen(kHelperSwitch));
    if (it == helperRegistry().end()) {
        std::cerr << "unknown helper " << argv[1] << "\n";
        exitCode = 125;
    } else {
        exitCode = it->second(std::vector<std::string>(argv + 2, argv + argc));
    }
    return true;
}

std::vector<std::string> helperCommand(const std::string &name,
                                       const std::vector<std::string> &args) {
    char self[4096] = {};
    readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::vector<std::string> command{self, kHelperSwitch + name};
    command.insert(command.end(), args.begin(), args.end());
    return command;
}

int waitExitCode(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

CommandResult runCommand(const std::vector<std::string> &argv, const std::string &input,
                         const std::map<std::string, std::string> &env) {
    // Memory files rather than pipes: nothing to pump while the program runs.
    int in = memfd_create("in", MFD_CLOEXEC), out = memfd_create("out", MFD_CLOEXEC),
        err = memfd_create("err", MFD_CLOEXEC);
    if (pwrite(in, input.data(), input.size(), 0) != static_cast<ssize_t>(input.size())) {
        return {-1, "", std::string("pwrite: ") + strerror(errno)};
    }
    std::vector<char *> args;
    for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        for (const auto &kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
        execv(args[0], args.data());
        _exit(127);
    }
    CommandResult result;
    result.exitCode = waitExitCode(pid);
    close(in);
    result.out = contentOf(out);
    result.err = contentOf(err);
    return result;
}

std::string programPath(const std::string &name) {
    for (const char *dir : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
        if (access((dir + name).c_str(), X_OK) == 0) return dir + name;
    }
    return "";
}

std::set<int> openFds() {
    std::set<int> fds;
    DIR *dir = opendir("/proc/self/fd");
    while (struct dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(dir)) {
            fds.insert(atoi(entry->d_name));
        }
    }
    if (dir != nullptr) closedir(dir);
    return fds;
}

bool noChildren() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

bool limitNewDescriptors(int count) {
    const std::set<int> fds = openFds();
    rlim_t limit = 0;
    for (int free = 0; free < count; ++limit) free += fds.count(static_cast<int>(limit)) == 0;
    struct rlimit lowered;
    if (getrlimit(RLIMIT_NOFILE, &lowered) != 0) return false;
    lowered.rlim_cur = limit;
    return setrlimit(RLIMIT_NOFILE, &lowered) == 0;
}

// The filter first refuses a call made through another architecture's table, where the same
// number means another call.
#if defined(__x86_64__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned int kAuditArch = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned int kAuditArch = 0;  // not known here: no filter
#endif

bool failSystemCall(long number, int error) {
    if (kAuditArch == 0) return false;
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K,
                 SECCOMP_RET_ERRNO | (static_cast<unsigned int>(error) & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace testsupport
