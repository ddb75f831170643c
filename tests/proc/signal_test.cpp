// Signal helpers change process-wide dispositions, so every case that installs something runs
// in a forked child.
#include "telobackup/proc/signal.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "proc/child_signals.h"
#include "support/child.h"
#include "support/syslog_capture.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

// The C library adds its restorer flag to every action it sets.
constexpr int kRestorer = 0x04000000;

struct sigaction actionOf(int sig) {
    struct sigaction action = {};
    sigaction(sig, nullptr, &action);
    action.sa_flags &= ~kRestorer;
    return action;
}

void handlerA(int) {}
void handlerB(int) {}

TEST(Signal, FlagEditorsKeepHandlerAndMaskAndHandBackTheOldFlags) {
    EXPECT_CHILD_OK([] {
        struct sigaction chld = {};
        chld.sa_handler = handlerA;
        chld.sa_flags = SA_NOCLDWAIT | SA_RESTART;
        sigaddset(&chld.sa_mask, SIGUSR1);
        sigaction(SIGCHLD, &chld, nullptr);
        int old = 0, middle = 0;
        CHILD_CHECK(signalHandlerRemoveFlags(SIGCHLD, SA_NOCLDWAIT, old));
        CHILD_CHECK(signalHandlerAddFlags(SIGCHLD, SA_NODEFER, middle));
        CHILD_CHECK((middle & ~kRestorer) == SA_RESTART);
        CHILD_CHECK_EQ(SA_RESTART | SA_NODEFER, actionOf(SIGCHLD).sa_flags);
        CHILD_CHECK(signalHandlerSetFlags(SIGCHLD, old));
        struct sigaction now = actionOf(SIGCHLD);
        CHILD_CHECK(now.sa_handler == handlerA && now.sa_flags == (SA_NOCLDWAIT | SA_RESTART));
        CHILD_CHECK_EQ(1, sigismember(&now.sa_mask, SIGUSR1));
    });
}

// Refusals are logged. Reading fails for a signal that does not exist (the old flags untouched);
// writing fails for one that cannot be caught (the old flags already handed back).
TEST(Signal, HandlerSetScopedHandlerAndRefusals) {
    EXPECT_CHILD_OK([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        CHILD_CHECK(signalHandlerSet(SIGUSR1, handlerA));
        CHILD_CHECK(signalHandlerSet(SIGUSR2, handlerA));
        sigprocmask(SIG_BLOCK, nullptr, &set);
        CHILD_CHECK(!sigismember(&set, SIGUSR1));
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerA &&
                    actionOf(SIGUSR1).sa_flags == SA_RESTART);
        SyslogCapture log{"proc/signal"};
        CHILD_CHECK(!signalHandlerSet(0, handlerA));
        CHILD_CHECK(!signalHandlerSet(SIGKILL, handlerA));
        int old = 12345;
        CHILD_CHECK(!signalHandlerRemoveFlags(0, SA_RESTART, old) && old == 12345);
        CHILD_CHECK(!signalHandlerAddFlags(SIGKILL, SA_RESTART, old) && (old & ~kRestorer) == 0);
        {
            ScopedTempSigHandler guard, unarmed;
            CHILD_CHECK(guard.setSignalHandler(SIGUSR1, SA_RESTART, SIG_IGN));
            CHILD_CHECK(actionOf(SIGUSR1).sa_handler == SIG_IGN);
            // Refused: the first replacement and what it saved stay.
            CHILD_CHECK(!guard.setSignalHandler(SIGUSR2, 0, handlerB));
            CHILD_CHECK(actionOf(SIGUSR2).sa_handler == handlerA);
            signal(SIGUSR2, handlerB);
        }
        // The first replacement is undone; the unarmed guard touched nothing.
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerA);
        CHILD_CHECK(actionOf(SIGUSR2).sa_handler == handlerB);
        CHILD_CHECK_EQ(1, log.err("sigaddset [0]: Invalid argument"));
        CHILD_CHECK_EQ(1, log.err("sigaction [9]: Invalid argument"));
        CHILD_CHECK_EQ(1, log.err("failed to set signal handler: original signum [10]"));
        CHILD_CHECK_EQ(1, log.err("sigaction get org failed: Invalid argument"));
        CHILD_CHECK_EQ(1, log.err("sigaction set flags failed: Invalid argument"));
        CHILD_CHECK_EQ(5u, log.size());
    });
}

// The launcher's SIGCHLD scope: SA_NOCLDWAIT is lifted while it lives, and the flags come back at
// the end of the scope or at restore() (once), keeping errno. The logged style puts every old flag
// back; the quiet one only adds SA_NOCLDWAIT back, keeping a change made meanwhile.
TEST(Signal, ChildFlagsScopeRestoresOnEveryPath) {
    using TELO::Backup::internal::ChildFlagsScope;
    EXPECT_CHILD_OK([] {
        const int host = SA_NOCLDWAIT | SA_RESTART;
        for (auto style : {ChildFlagsScope::Style::kLoggedAllFlags,
                           ChildFlagsScope::Style::kQuietNoChildWaitOnly}) {
            struct sigaction chld = {};
            chld.sa_flags = host;
            sigaction(SIGCHLD, &chld, nullptr);
            {
                ChildFlagsScope scope(style);
                CHILD_CHECK_EQ(SA_RESTART, actionOf(SIGCHLD).sa_flags);
                chld.sa_flags = SA_NODEFER;  // someone else's change meanwhile
                sigaction(SIGCHLD, &chld, nullptr);
                errno = EIO;
            }
            CHILD_CHECK_EQ(EIO, errno);
            bool quiet = style == ChildFlagsScope::Style::kQuietNoChildWaitOnly;
            CHILD_CHECK_EQ(quiet ? SA_NODEFER | SA_NOCLDWAIT : host, actionOf(SIGCHLD).sa_flags);

            ChildFlagsScope early(style);
            early.restore();
            CHILD_CHECK((actionOf(SIGCHLD).sa_flags & SA_NOCLDWAIT) != 0);
            chld.sa_flags = 0;
            sigaction(SIGCHLD, &chld, nullptr);
            early.restore();  // nothing more, nor at the end of the scope
            CHILD_CHECK_EQ(0, actionOf(SIGCHLD).sa_flags);
        }
    });
}

}  // namespace
