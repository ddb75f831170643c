// The connectivity probe on loopback addresses only; the fake platform supplies the resolver.
#include "telobackup/network/network.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
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

// A TCP socket bound to `address` and `port` (0: any), listening with `backlog` unless it is
// negative; invalid when the address cannot be bound.
UniqueFd boundSocket(const std::string &address, int port, int backlog) {
    sockaddr_in6 v6 = {};
    sockaddr_in v4 = {};
    bool isV6 = address.find(':') != std::string::npos;
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<uint16_t>(port));
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(isV6 ? AF_INET6 : AF_INET, address.c_str(),
              isV6 ? static_cast<void *>(&v6.sin6_addr) : static_cast<void *>(&v4.sin_addr));
    UniqueFd fd(socket(isV6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr *where = isV6 ? reinterpret_cast<sockaddr *>(&v6) : reinterpret_cast<sockaddr *>(&v4);
    if (bind(fd.get(), where, isV6 ? sizeof(v6) : sizeof(v4)) != 0 ||
        (backlog >= 0 && listen(fd.get(), backlog) != 0)) {
        return UniqueFd();
    }
    return fd;
}

int portOf(const UniqueFd &fd) {
    sockaddr_in6 address = {};
    socklen_t length = sizeof(address);
    getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin6_port);  // at the same offset in sockaddr_in
}

// A listener whose accept queue is full, so that the SYNs of new connections are dropped:
// backlog 0 and clients connected until one is left waiting.
struct SilentListener {
    UniqueFd listener;
    std::vector<UniqueFd> clients;

    bool open(const std::string &address, int port) {
        listener = boundSocket(address, port, 0);
        if (!listener) return false;
        sockaddr_in target = {};
        target.sin_family = AF_INET;
        target.sin_port = htons(static_cast<uint16_t>(portOf(listener)));
        inet_pton(AF_INET, address.c_str(), &target.sin_addr);
        for (int i = 0; i < 8; ++i) {
            clients.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            connect(clients.back().get(), reinterpret_cast<sockaddr *>(&target), sizeof(target));
            pollfd done = {clients.back().get(), POLLOUT, 0};
            if (poll(&done, 1, 200) == 0) return true;
        }
        return false;
    }
};

size_t openDescriptors() {
    size_t count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) ++count;
    if (dir != nullptr) closedir(dir);
    return count;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

TEST(NetProbe, BadParameters) {
    SyslogCapture log;
    EXPECT_EQ(-1, Net::testIpAndPortConnect(nullptr, 80, 5));
    EXPECT_EQ(-1, Net::testIpAndPortConnect("h", -1, 5));
    EXPECT_EQ(-1, Net::testIpAndPortConnect("127.0.0.1", 80, -1));
    EXPECT_EQ(3, log.count(LOG_ERR, "network/network:<line> bad parameter")) << log.dump();
    EXPECT_EQ(3u, log.size());
}

TEST(NetProbe, OpenClosedAndSilentPorts) {
    UniqueFd open = boundSocket("127.0.0.1", 0, 8);
    UniqueFd closed = boundSocket("127.0.0.1", 0, -1);  // bound, never listening
    SilentListener silent;
    ASSERT_TRUE(open && closed);
    if (!silent.open("127.0.0.1", 0)) GTEST_SKIP() << "the accept queue never filled";
    std::string silentPort = std::to_string(portOf(silent.listener));
    size_t descriptors = openDescriptors();
    SyslogCapture log;

    EXPECT_EQ(0, Net::testIpAndPortConnect("127.0.0.1", portOf(open), 5));
    EXPECT_EQ(0u, log.size()) << log.dump();

    std::string target = "[127.0.0.1:" + std::to_string(portOf(closed)) + "]";
    EXPECT_EQ(-1, Net::testIpAndPortConnect("127.0.0.1", portOf(closed), 5));
    EXPECT_TRUE(log.has(LOG_ERR, "network/network:<line> " + target + " isn't connected") ||
                log.has(LOG_ERR, "network/network:<line> " + target +
                                     " connect() error, Connection refused"))
        << log.dump();

    // Timeout 0 polls once: no answer yet.
    Clock::time_point start = Clock::now();
    EXPECT_EQ(-2, Net::testIpAndPortConnect("127.0.0.1", portOf(silent.listener), 0));
    EXPECT_LT(secondsSince(start), 0.9);
    EXPECT_TRUE(log.has(
        LOG_ERR, "network/network:<line> [127.0.0.1:" + silentPort + "] select() timeout, <any>"))
        << log.dump();
    EXPECT_EQ(descriptors, openDescriptors());

    UniqueFd open6 = boundSocket("::1", 0, 8);
    if (!open6) GTEST_SKIP() << "no IPv6 loopback";
    EXPECT_EQ(0, Net::testIpAndPortConnect("::1", portOf(open6), 5));
}

TEST(NetProbe, AnInterruptedWaitIsRepeatedTwice) {
    SilentListener silent;
    if (!silent.open("127.0.0.1", 0)) GTEST_SKIP() << "the accept queue never filled";
    EXPECT_CHILD_OK([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);  // no SA_RESTART
        itimerval every50ms = {{0, 50000}, {0, 50000}};
        setitimer(ITIMER_REAL, &every50ms, nullptr);
        SyslogCapture log;
        Clock::time_point start = Clock::now();
        int result = Net::testIpAndPortConnect("127.0.0.1", portOf(silent.listener), 5);
        double seconds = secondsSince(start);
        itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        CHILD_CHECK_EQ(-1, result);
        CHILD_CHECK(seconds > 0.1 && seconds < 2);
        CHILD_CHECK(log.has(LOG_ERR,
                            "network/network:<line> [127.0.0.1:<any>] select() error, "
                            "Interrupted system call"));
        return std::string();
    });
}

TEST(NetProbe, AddressesFromTheResolver) {
    fakeplatform::reset();
    SyslogCapture log;
    EXPECT_EQ("10.0.0.1", Net::getIpFromAddr("10.0.0.1"));
    EXPECT_EQ("::1", Net::getIpFromAddr("::1"));
    EXPECT_EQ(0, fakeplatform::calls("TELONetLookupIP"));
    fakeplatform::outcomes().lookupAddresses = {"::1", "fe80::1", "127.0.0.2", "127.0.0.1"};
    EXPECT_EQ("127.0.0.2", Net::getIpFromAddr("both.test"));

    fakeplatform::setFail("TELONetLookupIP", true, TELO_ERR_LOOKUP);
    std::string ip = "unchanged";
    EXPECT_EQ("", Net::getIpFromAddr("nowhere.test"));
    EXPECT_EQ(-3, Net::getAvailableIp("nowhere.test", 1, 1, ip));
    EXPECT_EQ("unchanged", ip);
    EXPECT_EQ(2, log.count(LOG_ERR,
                           "(<pid>) [err] network/network:<line> lookup[nowhere.test] "
                           "failed: [0x000A fake_platform.cpp:<line>]"))
        << log.dump();
    fakeplatform::reset();
}

TEST(NetProbe, FirstReachableAddressWithinTheBudget) {
    fakeplatform::reset();
    // Listeners on 127.0.0.2 and ::1 share a port that is closed on 127.0.0.1.
    UniqueFd open = boundSocket("127.0.0.2", 0, 8);
    ASSERT_TRUE(open);
    int port = portOf(open);
    UniqueFd closed = boundSocket("127.0.0.1", port, -1);
    UniqueFd open6 = boundSocket("::1", port, 8);
    if (!closed) GTEST_SKIP() << "port " << port << " is taken on 127.0.0.1";
    std::string ip;
    fakeplatform::outcomes().lookupAddresses = {"::1", "127.0.0.1", "127.0.0.2"};
    EXPECT_EQ(0, Net::getAvailableIp("both.test", port, 5, ip));
    // IPv4 first (::1 would answer too, where the machine has it), past the refused one.
    EXPECT_EQ("127.0.0.2", ip);
    EXPECT_EQ(0, Net::getAvailableIp("127.0.0.2", port, 5, ip));
    EXPECT_EQ(1, fakeplatform::calls("TELONetLookupIP"));

    // A silent first address: its try times out; the next one is tried only within budget.
    SilentListener silent;
    if (!silent.open("127.0.0.3", 0)) GTEST_SKIP() << "the accept queue never filled";
    int silentPort = portOf(silent.listener);
    UniqueFd second = boundSocket("127.0.0.2", silentPort, 8);
    if (!second) GTEST_SKIP() << "port " << silentPort << " is taken on 127.0.0.2";
    fakeplatform::outcomes().lookupAddresses = {"127.0.0.3", "127.0.0.2"};
    ip = "unchanged";
    EXPECT_EQ(0, Net::getAvailableIp("pair.test", silentPort, 0, 0, ip));
    EXPECT_EQ("127.0.0.2", ip);
    ip = "unchanged";
    Clock::time_point start = Clock::now();
    EXPECT_EQ(-2, Net::getAvailableIp("pair.test", silentPort, 1, 0, ip));
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_EQ("unchanged", ip);
    fakeplatform::reset();
}

TEST(NetProbe, BudgetArithmetic) {
    struct {
        int timeoutSec, totalSec;
        size_t candidates;
        int perTry;
        long long overall;
    } cases[] = {
        {30, -1, 3, 15, 45},  {60, -1, 1, 60, 60}, {40, -1, 2, 20, 40}, {31, -1, 2, 15, 30},
        {0, -1, 20, 15, 300}, {5, 10, 3, 5, 10},   {5, 0, 1, 5, 0},     {-5, -1, 2, -5, -5},
    };
    for (const auto &c : cases) {
        auto budget = TELO::Backup::internal::probeBudget(c.timeoutSec, c.totalSec, c.candidates);
        EXPECT_EQ(c.perTry, budget.perTry) << c.timeoutSec << " " << c.candidates;
        EXPECT_EQ(c.overall, budget.overall) << c.timeoutSec << " " << c.candidates;
    }
}
