#include "support/attacker.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace testsupport {

Attacker::Attacker(std::vector<std::function<bool()>> steps) {
    int toAttacker[2] = {-1, -1}, fromAttacker[2] = {-1, -1};
    if (geteuid() != 0 || pipe2(toAttacker, O_CLOEXEC) != 0 ||
        pipe2(fromAttacker, O_CLOEXEC) != 0 || (pid_ = fork()) < 0) {
        for (int fd : {toAttacker[0], toAttacker[1], fromAttacker[0], fromAttacker[1]}) {
            if (fd >= 0) close(fd);
        }
        pid_ = -1;
        return;
    }
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
