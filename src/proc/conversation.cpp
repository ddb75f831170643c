#include "telobackup/proc/conversation.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "internal/unique_fd.h"
#include "proc/exit_wait.h"

namespace TELO {
namespace Backup {

using internal::ErrnoSaver;
using internal::openPidfd;
using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

// The pause between two checks where the kernel has no pidfds.
constexpr long kNapNanoseconds = 5 * 1000 * 1000;

// The longest single poll(): its timeout is an int of milliseconds, so a longer wait is made of
// several (about 12 days each).
constexpr long long kLongestPollMs = 1 << 30;

// How much readLine() asks the socket for at a time.
constexpr size_t kReadChunk = 4096;

long long nowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

Conversation::Conversation() = default;

Conversation::Conversation(SubProcess &program) {
    PipeFile *pipe = nullptr;
    pid_t pid = program.callPipeOpen(&pipe);
    if (pid < 0) {
        ErrnoSaver keep;                      // callPipeOpen's failure
        SubProcess::callPipeClose(pipe, -1);  // a handle without a stream, or null
        return;
    }
    pipe_ = pipe;
    pid_ = pid;
}

Conversation::~Conversation() {
    ErrnoSaver keep;
    close();
}

Conversation::Conversation(Conversation &&other) noexcept
    : pipe_(std::exchange(other.pipe_, nullptr)),
      pid_(std::exchange(other.pid_, -1)),
      status_(std::exchange(other.status_, -1)),
      collected_(std::exchange(other.collected_, false)),
      buffered_(std::move(other.buffered_)) {
    other.buffered_.clear();
}

Conversation &Conversation::operator=(Conversation &&other) noexcept {
    if (this != &other) {
        close();
        pipe_ = std::exchange(other.pipe_, nullptr);
        pid_ = std::exchange(other.pid_, -1);
        status_ = std::exchange(other.status_, -1);
        collected_ = std::exchange(other.collected_, false);
        buffered_ = std::move(other.buffered_);
        other.buffered_.clear();
    }
    return *this;
}

bool Conversation::started() const {
    return pipe_ != nullptr;
}

pid_t Conversation::pid() const {
    return pid_;
}

int Conversation::fd() const {
    return SubProcess::getReadFD(pipe_);
}

bool Conversation::hasBuffered() const {
    return !buffered_.empty();
}

bool Conversation::write(const void *data, size_t size) {
    int socket = fd();
    if (socket < 0) {
        errno = EBADF;
        return false;
    }
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        // MSG_NOSIGNAL: EPIPE even where a host has set SIGPIPE back to its default.
        ssize_t n = retryOnEintr([&] { return send(socket, p, size, MSG_NOSIGNAL); });
        if (n < 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool Conversation::write(const std::string &text) {
    return write(text.data(), text.size());
}

ssize_t Conversation::read(void *buffer, size_t size) {
    int socket = fd();
    if (socket < 0) {
        errno = EBADF;
        return -1;
    }
    if (size == 0) return 0;
    if (!buffered_.empty()) {
        size_t count = std::min(size, buffered_.size());
        memcpy(buffer, buffered_.data(), count);
        buffered_.erase(0, count);
        return static_cast<ssize_t>(count);
    }
    return retryOnEintr([&] { return ::read(socket, buffer, size); });
}

bool Conversation::readLine(std::string &line, size_t maxLength) {
    line.clear();
    int socket = fd();
    if (socket < 0) {
        errno = EBADF;
        return false;
    }
    size_t searched = 0;
    for (;;) {
        size_t newline = buffered_.find('\n', searched);
        if (newline != std::string::npos && newline <= maxLength) {
            line.assign(buffered_, 0, newline);
            buffered_.erase(0, newline + 1);
            return true;
        }
        if (buffered_.size() >= maxLength) {
            line.assign(buffered_, 0, maxLength);
            buffered_.erase(0, maxLength);
            errno = EOVERFLOW;
            return false;
        }
        searched = buffered_.size();
        char chunk[kReadChunk];
        ssize_t n = retryOnEintr([&] { return ::read(socket, chunk, sizeof(chunk)); });
        if (n < 0) return false;
        if (n == 0) {
            errno = 0;
            if (buffered_.empty()) return false;
            line.swap(buffered_);
            buffered_.clear();
            return true;
        }
        buffered_.append(chunk, static_cast<size_t>(n));
    }
}

bool Conversation::closeInput() {
    int socket = fd();
    if (socket < 0) {
        errno = EBADF;
        return false;
    }
    return shutdown(socket, SHUT_WR) == 0;
}

int Conversation::wait(int timeoutMs) {
    if (collected_) return status_;
    if (pid_ < 0) {
        errno = ECHILD;
        return -1;
    }
    long long deadline = timeoutMs < 0 ? -1 : nowMs() + timeoutMs;
    // Opened before the first check, so that a check finding the child unreaped proves the
    // pidfd names it.
    UniqueFd pidfd(openPidfd(pid_));
    for (;;) {
        int status = 0;
        pid_t waited = waitpid(pid_, &status, WNOHANG);
        if (waited > 0) {
            collected_ = true;
            status_ = status;
            pid_ = -1;
            return status;
        }
        if (waited < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        long long left = deadline < 0 ? -1 : deadline - nowMs();
        if (deadline >= 0 && left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        if (pidfd) {
            struct pollfd watched = {pidfd.get(), POLLIN, 0};
            int timeout = left < 0 ? -1 : static_cast<int>(std::min(left, kLongestPollMs));
            poll(&watched, 1, timeout);  // EINTR: check again
        } else {
            long nap = kNapNanoseconds;
            if (left >= 0) nap = std::min<long>(nap, static_cast<long>(left) * 1000000);
            struct timespec pause = {0, nap};
            nanosleep(&pause, nullptr);
        }
    }
}

int Conversation::close() {
    if (pipe_ == nullptr && pid_ < 0 && !collected_) {
        errno = EBADF;
        return -1;
    }
    pid_t pid = std::exchange(pid_, -1);
    int status = SubProcess::callPipeClose(std::exchange(pipe_, nullptr), pid);
    buffered_.clear();
    if (collected_) {
        collected_ = false;
        return std::exchange(status_, -1);
    }
    if (status == -1 && pid > 0) {
        int saved = errno;
        int last = 0;
        pid_t waited = retryOnEintr([&] { return waitpid(pid, &last, WNOHANG); });
        if (waited == 0) {
            kill(pid, SIGKILL);
            waited = retryOnEintr([&] { return waitpid(pid, &last, 0); });
        }
        if (waited == pid) return last;
        errno = saved;
    }
    return status;
}

}  // namespace Backup
}  // namespace TELO
