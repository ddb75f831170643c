// Signal helpers change process-wide dispositions, so every case that installs something runs in
// a forked child.
#include "telobackup/proc/signal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include "support/child.h"
#include "support/syslog_capture.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

struct sigaction actionOf(int sig) {
    struct sigaction action = {};
    sigaction(sig, nullptr, &action);
    return action;
}

// The C library adds its restorer flag whenever it sets an action.
int flagsOf(int sig) {
    return actionOf(sig).sa_flags & ~0x04000000;
}

void handlerA(int) {}
void handlerB(int) {}

TEST(SignalFlags, RemoveThenSetRestoresTheDisposition) {
    EXPECT_CHILD_OK([] {
        struct sigaction chld = {};
        chld.sa_handler = handlerA;
        chld.sa_flags = SA_NOCLDWAIT | SA_RESTART;
        sigaddset(&chld.sa_mask, SIGUSR1);
        CHILD_CHECK_EQ(0, sigaction(SIGCHLD, &chld, nullptr));

        int old = 0;
        CHILD_CHECK(signalHandlerRemoveFlags(SIGCHLD, SA_NOCLDWAIT, old));
        CHILD_CHECK_EQ(SA_NOCLDWAIT | SA_RESTART, old & (SA_NOCLDWAIT | SA_RESTART));
        CHILD_CHECK_EQ(SA_RESTART, flagsOf(SIGCHLD));
        int middle = 0;
        CHILD_CHECK(signalHandlerAddFlags(SIGCHLD, SA_NODEFER, middle));
        CHILD_CHECK_EQ(SA_RESTART, middle & ~0x04000000);
        CHILD_CHECK_EQ(SA_RESTART | SA_NODEFER, flagsOf(SIGCHLD));

        CHILD_CHECK(signalHandlerSetFlags(SIGCHLD, old));
        struct sigaction now = actionOf(SIGCHLD);
        CHILD_CHECK(now.sa_handler == handlerA);
        CHILD_CHECK_EQ(SA_NOCLDWAIT | SA_RESTART, flagsOf(SIGCHLD));
        CHILD_CHECK_EQ(1, sigismember(&now.sa_mask, SIGUSR1));
        return std::string();
    });
}

// Reading fails for a signal that does not exist; writing fails for one that cannot be caught,
// after the old flags were handed back.
TEST(SignalFlags, FailuresAreLoggedAndReported) {
    SyslogCapture log;
    int old = 12345;
    EXPECT_FALSE(signalHandlerRemoveFlags(0, SA_RESTART, old));
    EXPECT_EQ(12345, old);
    EXPECT_EQ(EINVAL, errno);
    EXPECT_FALSE(signalHandlerAddFlags(NSIG, SA_RESTART, old));
    EXPECT_EQ(12345, old);
    EXPECT_FALSE(signalHandlerSetFlags(-1, 0));
    EXPECT_EQ(3, log.count(LOG_ERR,
                           "(<pid>) [err] proc/signal:<line> sigaction get org failed: "
                           "Invalid argument"));

    EXPECT_FALSE(signalHandlerAddFlags(SIGKILL, SA_RESTART, old));
    EXPECT_EQ(0, old & ~0x04000000);
    EXPECT_FALSE(signalHandlerSetFlags(SIGSTOP, SA_RESTART));
    EXPECT_EQ(2, log.count(LOG_ERR,
                           "(<pid>) [err] proc/signal:<line> sigaction set flags "
                           "failed: Invalid argument"));
    EXPECT_EQ(5u, log.size()) << log.dump();
}

TEST(SignalHandlerSet, UnblocksAndInstallsWithRestart) {
    EXPECT_CHILD_OK([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigaddset(&set, SIGUSR2);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        CHILD_CHECK(signalHandlerSet(SIGUSR1, handlerA));
        sigset_t now;
        sigprocmask(SIG_BLOCK, nullptr, &now);
        CHILD_CHECK_EQ(0, sigismember(&now, SIGUSR1));
        CHILD_CHECK_EQ(1, sigismember(&now, SIGUSR2));
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerA);
        CHILD_CHECK_EQ(SA_RESTART, flagsOf(SIGUSR1));

        SyslogCapture log;
        CHILD_CHECK(!signalHandlerSet(0, handlerA));
        CHILD_CHECK(log.has(LOG_ERR,
                            "(<pid>) [err] proc/signal:<line> sigaddset [0]: Invalid "
                            "argument"));
        CHILD_CHECK(!signalHandlerSet(SIGKILL, handlerA));
        CHILD_CHECK(log.has(LOG_ERR,
                            "(<pid>) [err] proc/signal:<line> sigaction [9]: Invalid "
                            "argument"));
        CHILD_CHECK_EQ(2u, log.size());
        return std::string();
    });
}

TEST(ScopedTempSigHandler, ArmsOnceAndRestoresOnDestruction) {
    EXPECT_CHILD_OK([] {
        signal(SIGUSR1, handlerA);
        signal(SIGUSR2, handlerA);
        SyslogCapture log;
        {
            ScopedTempSigHandler guard;
            CHILD_CHECK(guard.setSignalHandler(SIGUSR1, SA_RESTART, SIG_IGN));
            CHILD_CHECK(actionOf(SIGUSR1).sa_handler == SIG_IGN);
            CHILD_CHECK_EQ(SA_RESTART, flagsOf(SIGUSR1));
            // Refused: the first replacement and what it saved stay.
            CHILD_CHECK(!guard.setSignalHandler(SIGUSR2, 0, handlerB));
            CHILD_CHECK(log.has(LOG_ERR,
                                "(<pid>) [err] proc/signal:<line> failed to set signal "
                                "handler: original signum [10]"));
            CHILD_CHECK(actionOf(SIGUSR2).sa_handler == handlerA);
            CHILD_CHECK(actionOf(SIGUSR1).sa_handler == SIG_IGN);
        }
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerA);

        // An unarmed guard touches nothing, and neither does one armed for no signal.
        {
            ScopedTempSigHandler unarmed;
            ScopedTempSigHandler noSignal;
            CHILD_CHECK(noSignal.setSignalHandler(0, 0, handlerB));
            signal(SIGUSR1, handlerB);
        }
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerB);
        CHILD_CHECK_EQ(1u, log.size());
        return std::string();
    });
}

}  // namespace
