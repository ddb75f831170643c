// The connectivity probe on loopback addresses only; the fake platform supplies the resolver.
#include "telobackup/network/network.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <syslog.h>

#include <chrono>
#include <vector>

#include "internal/unique_fd.h"
#include "network/network_private.h"
#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"

using TELO::Backup::Net;
using TELO::Backup::internal::UniqueFd;
using testsupport::SyslogCapture;
using Clock = std::chrono::steady_clock;

namespace {

// A TCP socket on `address`:`port` (0: any), listening with `backlog` unless it is negative;
// with `connectTo`, a non-blocking client connecting there instead. Invalid on failure.
UniqueFd tcpSocket(const char *address, int port, int backlog, bool connectTo = false) {
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(address, std::to_string(port).c_str(), &hints, &found) != 0) return UniqueFd();
    UniqueFd fd(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool ok = connectTo ? connect(fd.get(), found->ai_addr, found->ai_addrlen) == 0 ||
                              errno == EINPROGRESS
                        : bind(fd.get(), found->ai_addr, found->ai_addrlen) == 0 &&
                              (backlog < 0 || listen(fd.get(), backlog) == 0);
    freeaddrinfo(found);
    return ok ? std::move(fd) : UniqueFd();
}

int portOf(const UniqueFd &fd) {
    sockaddr_in6 address = {};  // sin_port sits at the same offset
    socklen_t length = sizeof(address);
    getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin6_port);
}

// A listener whose accept queue is full, so that new SYNs are dropped: backlog 0 and clients
// connected until one is left waiting.
struct SilentListener {
    UniqueFd listener;
    std::vector<UniqueFd> clients;
    bool open(const char *address, int port = 0) {
        listener = tcpSocket(address, port, 0);
        for (int i = 0; listener && i < 8; ++i) {
            clients.push_back(tcpSocket(address, portOf(listener), 0, true));
            pollfd done = {clients.back().get(), POLLOUT, 0};
            if (poll(&done, 1, 200) == 0) return true;
        }
        return false;
    }
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

// Every failure leaves the reason in errno, and its line as the thread's last error.
TEST(NetProbe, ConnectResults) {
    SyslogCapture log;
    auto expectFailure = [](int expected, int expectedErrno, int result) {
        int error = errno;
        EXPECT_EQ(expected, result);
        EXPECT_EQ(expectedErrno, error);
    };
    struct {
        const char *host;
        int port, timeout;
    } bad[] = {{nullptr, 80, 5}, {"h", -1, 5}, {"127.0.0.1", 65536, 5}, {"127.0.0.1", 80, -1}};
    for (const auto &c : bad) {
        expectFailure(-1, EINVAL, Net::testIpAndPortConnect(c.host, c.port, c.timeout));
    }
    EXPECT_EQ(4, log.count(LOG_ERR, "network/network:<line> bad parameter")) << log.dump();

    UniqueFd open = tcpSocket("127.0.0.1", 0, 8), closed = tcpSocket("127.0.0.1", 0, -1);
    SilentListener silent;
    if (!silent.open("127.0.0.1")) GTEST_SKIP() << "the accept queue never filled";
    EXPECT_EQ(0, Net::testIpAndPortConnect("127.0.0.1", portOf(open), 5));
    expectFailure(-1, ECONNREFUSED, Net::testIpAndPortConnect("127.0.0.1", portOf(closed), 5));
    // Timeout 0 polls once.
    Clock::time_point start = Clock::now();
    expectFailure(-2, ETIMEDOUT,
                  Net::testIpAndPortConnect("127.0.0.1", portOf(silent.listener), 0));
    EXPECT_LT(secondsSince(start), 0.9);
}

TEST(NetProbe, AnInterruptedWaitIsRepeatedTwice) {
    SilentListener silent;
    if (!silent.open("127.0.0.1")) GTEST_SKIP() << "the accept queue never filled";
    EXPECT_CHILD_OK([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);  // no SA_RESTART
        itimerval every50ms = {{0, 50000}, {0, 50000}};
        setitimer(ITIMER_REAL, &every50ms, nullptr);
        SyslogCapture log;
        Clock::time_point start = Clock::now();
        CHILD_CHECK_EQ(-1, Net::testIpAndPortConnect("127.0.0.1", portOf(silent.listener), 5));
        CHILD_CHECK(secondsSince(start) > 0.1 && secondsSince(start) < 2);
        CHILD_CHECK(log.has(LOG_ERR,
                            "network/network:<line> [127.0.0.1:<any>] select() error, "
                            "Interrupted system call"));
    });
}

TEST(NetProbe, ResolvedAddressesIpv4FirstWithinTheBudget) {
    fakeplatform::reset();
    fakeplatform::outcomes().lookupAddresses = {"::1", "fe80::1", "127.0.0.2", "127.0.0.1"};
    EXPECT_EQ("127.0.0.2", Net::getIpFromAddr("both.test"));
    // One port: open on 127.0.0.2, refused on 127.0.0.1. An IP literal is not looked up.
    UniqueFd open = tcpSocket("127.0.0.2", 0, 8);
    UniqueFd closed = tcpSocket("127.0.0.1", portOf(open), -1);
    if (!closed) GTEST_SKIP() << "the port is taken on 127.0.0.1";
    std::string ip;
    EXPECT_EQ(0, Net::getAvailableIp("127.0.0.2", portOf(open), 5, ip));
    EXPECT_EQ(1, fakeplatform::calls("TELONetLookupIP"));
    // A refused address passes on to the next one.
    fakeplatform::outcomes().lookupAddresses = {"::1", "127.0.0.1", "127.0.0.2"};
    EXPECT_EQ(0, Net::getAvailableIp("both.test", portOf(open), 5, ip));
    EXPECT_EQ("127.0.0.2", ip);

    // A silent first address: the second is tried only while the budget lasts.
    SilentListener silent;
    if (!silent.open("127.0.0.3")) GTEST_SKIP() << "the accept queue never filled";
    UniqueFd second = tcpSocket("127.0.0.2", portOf(silent.listener), 8);
    if (!second) GTEST_SKIP() << "the port is taken on 127.0.0.2";
    fakeplatform::outcomes().lookupAddresses = {"127.0.0.3", "127.0.0.2"};
    Clock::time_point start = Clock::now();
    EXPECT_EQ(-2, Net::getAvailableIp("pair.test", portOf(second), 1, 0, ip));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(secondsSince(start), 1.0);
    fakeplatform::reset();
}

// A share of the timeout per address, never under the minimum try; a negative timeout is left
// for each try to reject.
TEST(NetProbe, BudgetArithmetic) {
    using TELO::Backup::internal::probeBudget;
    EXPECT_EQ(45, probeBudget(30, -1, 3).overall);
    EXPECT_EQ(15, probeBudget(31, -1, 2).perTry);
    EXPECT_EQ(-5, probeBudget(-5, -1, 2).perTry);
}
