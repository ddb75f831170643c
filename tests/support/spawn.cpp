#include "support/spawn.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace testsupport {

pid_t spawnProcess(const std::vector<std::string> &argv, int stdoutFd) {
    std::vector<char *> args;
    for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (stdoutFd >= 0 && dup2(stdoutFd, STDOUT_FILENO) < 0) _exit(127);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int waitExitCode(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace testsupport
