#include "telobackup/network/network.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "internal/errno_saver.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "network/network_private.h"
#include "telo/platform.h"

namespace TELO {
namespace Backup {

using internal::UniqueFd;

namespace {

constexpr char kLogSource[] = "network/network";
constexpr int kLookupCapacity = 20;
constexpr int kMinimumTrySeconds = 15;
constexpr int kWaitCalls = 3;
// Room for "65535" and more: a number cut by it is refused with the others out of range.
constexpr size_t kPortTextSize = 10;
constexpr int kMaxPort = 65535;

// The errno that stands for a getaddrinfo failure.
int lookupErrno(int code) {
    switch (code) {
        case EAI_SYSTEM:
            return errno;
        case EAI_MEMORY:
            return ENOMEM;
        case EAI_AGAIN:
            return EAGAIN;
        default:
            return ENOENT;  // the name or the port has no address
    }
}

bool isIpLiteral(const std::string &addr) {
    return BlTLIBIsIpAddr(addr.c_str()) != 0 || BlTLIBIsv6IpAddrValid(addr.c_str()) != 0;
}

// The addresses of `host`: IPv4 ones in resolver order, then all others in resolver order.
bool lookupAddresses(const std::string &host, std::vector<std::string> &list) {
    list.clear();
    char entries[kLookupCapacity][TELO_IP_TEXT_SIZE] = {};
    int count = TELONetLookupIP(host.c_str(), entries, kLookupCapacity, 0);
    if (count < 1) {
        TELO_LOG_ERR("lookup[%s] failed: " TELO_PLATFORM_ERR_FMT, host.c_str(),
                     TELO_PLATFORM_ERR_ARGS);
        return false;
    }
    std::vector<std::string> others;
    for (int i = 0; i < count && i < kLookupCapacity; ++i) {
        std::string address(entries[i], strnlen(entries[i], TELO_IP_TEXT_SIZE));
        (BlTLIBIsIpAddr(address.c_str()) == 1 ? list : others).push_back(address);
    }
    list.insert(list.end(), others.begin(), others.end());
    return true;
}

}  // namespace

namespace internal {

ProbeBudget probeBudget(int timeoutSec, int totalSec, size_t candidates) {
    if (totalSec != -1) return {timeoutSec, totalSec};
    // A negative timeout would turn into a huge unsigned share; let each try reject it.
    if (timeoutSec < 0 || candidates == 0) return {timeoutSec, timeoutSec};
    unsigned share = static_cast<unsigned>(timeoutSec) / static_cast<unsigned>(candidates);
    if (share > static_cast<unsigned>(kMinimumTrySeconds)) {
        return {static_cast<int>(share), timeoutSec};
    }
    return {kMinimumTrySeconds, kMinimumTrySeconds * static_cast<long long>(candidates)};
}

}  // namespace internal

int Net::testIpAndPortConnect(const char *host, int port, int timeoutSec) {
    // Ports past 65535 would be wrapped silently by getaddrinfo (and cut by the buffer).
    char portText[kPortTextSize];
    int printed = snprintf(portText, sizeof(portText), "%d", port);
    if (host == nullptr || port < 0 || port > kMaxPort || timeoutSec < 0 ||
        printed >= static_cast<int>(sizeof(portText))) {
        TELO_LOG_SHORT(LOG_ERR, "bad parameter");
        errno = EINVAL;
        return -1;
    }
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    int lookup = getaddrinfo(host, portText, &hints, &found);
    if (lookup != 0) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] getaddrinfo() error, %m", host, portText);
        errno = lookupErrno(lookup);
        return -1;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> addresses(found, freeaddrinfo);

    UniqueFd fd(socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol));
    if (!fd) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] socket() error, %m", host, portText);
        return -1;
    }
    int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] fcntl() get error, %m", host, portText);
        return -1;
    }
    if (fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] fcntl() set error, %m", host, portText);
        return -1;
    }
    if (connect(fd.get(), found->ai_addr, found->ai_addrlen) == 0) return 0;
    if (errno != EINPROGRESS) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] connect() error, %m", host, portText);
        return -1;
    }

    // ppoll rather than select, which cannot watch descriptors past FD_SETSIZE; the events
    // asked for and read back are those of select's three sets.
    pollfd watch;
    int ready = -1;
    for (int call = 0; call < kWaitCalls; ++call) {
        watch = {fd.get(), POLLIN | POLLOUT | POLLPRI, 0};
        timespec timeout = {timeoutSec, 0};
        ready = ppoll(&watch, 1, &timeout, nullptr);
        if (ready >= 0 || errno != EINTR) break;
    }
    if (ready < 0) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] select() error, %m", host, portText);
        return -1;
    }
    if (ready == 0) {
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] select() timeout, %m", host, portText);
        errno = ETIMEDOUT;
        return -2;
    }
    bool readable = (watch.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    bool writable = (watch.revents & (POLLOUT | POLLERR)) != 0;
    if (!readable && !writable) {
        TELO_LOG_SHORT(LOG_ERR, "Could not get readable or writable socket");
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] isn't connected", host, portText);
        errno = ENOTCONN;
        return -1;
    }
    int error = -1;
    socklen_t length = sizeof(error);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        TELO_LOG_SHORT(LOG_ERR, "Could not get socket error status, %m");
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] isn't connected", host, portText);
        return -1;
    }
    if (error != 0) {
        TELO_LOG_SHORT(LOG_ERR, "Socket error: %d, %s", error, strerror(error));
        TELO_LOG_SHORT(LOG_ERR, "[%s:%s] isn't connected", host, portText);
        errno = error;
        return -1;
    }
    return 0;
}

std::string Net::getIpFromAddr(const std::string &addr) {
    if (isIpLiteral(addr)) return addr;
    std::vector<std::string> addresses;
    if (!lookupAddresses(addr, addresses)) return std::string();
    return addresses.front();
}

int Net::getAvailableIp(const std::string &addr, int port, int timeoutSec, int totalSec,
                        std::string &ip) {
    return getAvailableIp(addr, port, timeoutSec, totalSec, ip, ProbeObserver());
}

int Net::getAvailableIp(const std::string &addr, int port, int timeoutSec, int totalSec,
                        std::string &ip, const ProbeObserver &observer) {
    timespec start;
    if (clock_gettime(CLOCK_MONOTONIC, &start) != 0) {
        TELO_LOG_SHORT(LOG_ERR, "clock_gettime failed [%m]");
        return -4;
    }
    std::vector<std::string> candidates;
    if (isIpLiteral(addr)) {
        candidates.push_back(addr);
    } else if (!lookupAddresses(addr, candidates)) {
        errno = ENOENT;
        return -3;
    }
    internal::ProbeBudget budget = internal::probeBudget(timeoutSec, totalSec, candidates.size());
    int result = -1;
    for (const std::string &candidate : candidates) {
        if (observer.trying) observer.trying(candidate);
        result = testIpAndPortConnect(candidate.c_str(), port, budget.perTry);
        if (observer.tried) {
            internal::ErrnoSaver keep;  // the probe's errno, whatever the observer does
            observer.tried(candidate, result, keep.value());
        }
        if (result == 0) {
            ip = candidate;
            return 0;
        }
        timespec now;
        if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
            TELO_LOG_SHORT(LOG_ERR, "clock_gettime failed [%m]");
            return -4;
        }
        if (now.tv_sec - start.tv_sec > budget.overall) return result;
    }
    return result;
}

int Net::getAvailableIp(const std::string &addr, int port, int timeoutSec, std::string &ip) {
    return getAvailableIp(addr, port, timeoutSec, -1, ip);
}

}  // namespace Backup
}  // namespace TELO
