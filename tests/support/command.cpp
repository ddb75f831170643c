#include "support/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace testsupport {

CommandResult runCommand(const std::vector<std::string> &argv, const std::string &input,
                         const std::map<std::string, std::string> &env) {
    CommandResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        result.err = std::string("pipe2: ") + strerror(errno);
        return result;
    }
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        for (const auto &kv : env) {
            if (kv.second == "\x01") {
                unsetenv(kv.first.c_str());
            } else {
                setenv(kv.first.c_str(), kv.second.c_str(), 1);
            }
        }
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(args[0], args.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    // Feed standard input and drain both outputs together, so no pipe fills up.
    size_t written = 0;
    int inFd = in[1];
    if (input.empty()) {
        close(inFd);
        inFd = -1;
    }
    // A program that exits without reading its input must not kill us; restored below.
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);
    struct pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[65536];
            ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
        if (fds[2].fd >= 0 && fds[2].revents != 0) {
            ssize_t n = write(fds[2].fd, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 || written == input.size()) {
                close(fds[2].fd);
                fds[2].fd = -1;
            }
        }
    }
    if (fds[2].fd >= 0) close(fds[2].fd);
    sigaction(SIGPIPE, &previous, nullptr);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace testsupport
