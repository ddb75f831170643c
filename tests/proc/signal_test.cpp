// Signal helpers change process-wide dispositions, so every case that installs something runs
// in a forked child.
#include "telobackup/proc/signal.h"

#include <gtest/gtest.h>
#include <signal.h>

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

// Refusals are logged, one line each. Reading fails for a signal that does not exist (the old
// flags untouched); writing fails for one that cannot be caught (the old flags already handed
// back).
TEST(Signal, HandlersFlagsScopedHandlerAndRefusals) {
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
        // The flag editors keep handler and mask and hand back the old flags.
        int old = 0;
        CHILD_CHECK(signalHandlerAddFlags(SIGUSR1, SA_NODEFER, old));
        CHILD_CHECK((old & ~kRestorer) == SA_RESTART);
        CHILD_CHECK(signalHandlerRemoveFlags(SIGUSR1, SA_RESTART, old));
        CHILD_CHECK_EQ(SA_NODEFER, actionOf(SIGUSR1).sa_flags);
        CHILD_CHECK(signalHandlerSetFlags(SIGUSR1, old));
        CHILD_CHECK(actionOf(SIGUSR1).sa_handler == handlerA &&
                    actionOf(SIGUSR1).sa_flags == (SA_RESTART | SA_NODEFER));
        SyslogCapture log{"proc/signal"};
        CHILD_CHECK(!signalHandlerSet(0, handlerA));
        CHILD_CHECK(!signalHandlerSet(SIGKILL, handlerA));
        old = 12345;
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
        CHILD_CHECK_EQ(1, log.err("failed to set signal handler: original signum [10]"));
        CHILD_CHECK_EQ(5u, log.size());
    });
}

}  // namespace
