#include "support/attacker.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace testsupport {

Attacker::Attacker(std::vector<std::function<bool()>> steps) {
    int toAttacker[2], fromAttacker[2];
    if (geteuid() != 0 || pipe2(toAttacker, O_CLOEXEC) != 0) return;
    if (pipe2(fromAttacker, O_CLOEXEC) != 0) {
        close(toAttacker[0]);
        close(toAttacker[1]);
        return;
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(toAttacker[1]);
        close(fromAttacker[0]);
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
        uint32_t index;
        while (read(toAttacker[0], &index, sizeof(index)) == sizeof(index)) {
            char done = 0;
            try {
                done = index < steps.size() && steps[index]() ? 1 : 0;
            } catch (...) {
            }
            if (write(fromAttacker[1], &done, 1) != 1) break;
        }
        _exit(0);
    }
    close(toAttacker[0]);
    close(fromAttacker[1]);
    request_ = toAttacker[1];
    reply_ = fromAttacker[0];
    if (pid_ < 0) {
        close(request_);
        close(reply_);
        request_ = reply_ = -1;
    }
}

Attacker::~Attacker() {
    if (pid_ <= 0) return;
    close(request_);
    close(reply_);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool Attacker::perform(size_t index) {
    uint32_t request = static_cast<uint32_t>(index);
    char done = 0;
    return pid_ > 0 && write(request_, &request, sizeof(request)) == sizeof(request) &&
           read(reply_, &done, 1) == 1 && done == 1;
}

}  // namespace testsupport
