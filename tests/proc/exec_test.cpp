// UtilExec with the fake platform, whose TLIBCProcFork is a real fork unless switched to fail.
// Cases that receive signals or change dispositions run in a forked child.
#include "telobackup/proc/exec.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "proc/child_programs.h"
#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"

using TELO::Backup::UtilExec;
using namespace testsupport;

namespace {

// Runs helper `name` through Execv.
int execHelper(const std::string &name, const std::vector<std::string> &args,
               void (*callback)(int, int) = nullptr) {
    std::vector<std::string> command = proctest::helper(name, args);
    std::vector<char *> argv;
    for (std::string &arg : command) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    return UtilExec().Execv(argv[0], argv.data(), callback);
}

void (*handlerOf(int sig))(int) {
    struct sigaction action = {};
    sigaction(sig, nullptr, &action);
    return action.sa_handler;
}

void hostHandler(int) {}

class Exec : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
    void TearDown() override { EXPECT_TRUE(proctest::noChildren()); }
    SyslogCapture log;
};

TEST_F(Exec, ReturnsTheExitCodeOrMinusOne) {
    EXPECT_EQ(3, execHelper("exit", {"3"}));
    EXPECT_EQ(0, execHelper("exit", {"0"}));
    EXPECT_EQ(2, fakeplatform::calls("TLIBCProcFork"));
    EXPECT_EQ(SIG_DFL, handlerOf(SIGTERM));
    EXPECT_EQ(SIG_DFL, handlerOf(SIGINT));

    // A path that cannot be run makes the child abort: a signal death.
    EXPECT_CHILD_OK([] {
        struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        char path[] = "/nonexistent/prog";
        char *argv[] = {path, nullptr};
        CHILD_CHECK_EQ(-1, UtilExec().Execv(path, argv, nullptr));
        return std::string();
    });
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(Exec, ForkFailureReturnsMinusOneQuietly) {
    fakeplatform::setFail("TLIBCProcFork");
    EXPECT_EQ(-1, execHelper("exit", {"0"}));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0u, log.size()) << log.dump();
    EXPECT_EQ(SIG_DFL, handlerOf(SIGTERM));
}

int lastCallbackSignal = -1;
int lastCallbackResult = -1;
int callbackCalls = 0;
void recordCallback(int sig, int result) {
    lastCallbackSignal = sig;
    lastCallbackResult = result;
    ++callbackCalls;
}

TEST_F(Exec, ForwardsSignalsAndCallsBack) {
    EXPECT_CHILD_OK([] {
        signal(SIGINT, hostHandler);
        CHILD_CHECK_EQ(7, execHelper("signal_parent", {"TERM", "7"}, recordCallback));
        CHILD_CHECK_EQ(15, lastCallbackSignal);
        CHILD_CHECK_EQ(7, lastCallbackResult);
        CHILD_CHECK_EQ(8, execHelper("signal_parent", {"INT", "8"}, recordCallback));
        CHILD_CHECK_EQ(SIGINT, lastCallbackSignal);
        CHILD_CHECK_EQ(8, lastCallbackResult);
        // Without a signal there is no call back.
        CHILD_CHECK_EQ(0, execHelper("exit", {"0"}, recordCallback));
        CHILD_CHECK_EQ(2, callbackCalls);
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler);
        CHILD_CHECK(handlerOf(SIGTERM) == SIG_DFL);
        return std::string();
    });
}

TEST_F(Exec, NoChildWaitFlagIsLiftedForTheWaitAndRestored) {
    EXPECT_CHILD_OK([] {
        struct sigaction chld = {};
        chld.sa_handler = SIG_DFL;
        chld.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &chld, nullptr);
        CHILD_CHECK_EQ(4, execHelper("exit", {"4"}));
        struct sigaction now = {};
        sigaction(SIGCHLD, nullptr, &now);
        CHILD_CHECK((now.sa_flags & SA_NOCLDWAIT) != 0);

        fakeplatform::setFail("TLIBCProcFork");
        CHILD_CHECK_EQ(-1, execHelper("exit", {"0"}));
        sigaction(SIGCHLD, nullptr, &now);
        CHILD_CHECK((now.sa_flags & SA_NOCLDWAIT) != 0);
        return std::string();
    });
}

TEST_F(Exec, SetAndRestoreSigHandler) {
    EXPECT_CHILD_OK([] {
        signal(SIGINT, hostHandler);
        signal(SIGTERM, SIG_IGN);
        UtilExec exec;
        // Nothing saved yet: nothing to restore.
        exec.RestoreSigHandler();
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler);
        CHILD_CHECK(handlerOf(SIGTERM) == SIG_IGN);

        exec.SetSigHandler();
        CHILD_CHECK(handlerOf(SIGINT) != hostHandler);
        CHILD_CHECK(handlerOf(SIGINT) == handlerOf(SIGTERM));
        exec.RestoreSigHandler();
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler);
        CHILD_CHECK(handlerOf(SIGTERM) == SIG_IGN);
        exec.RestoreSigHandler();
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler);
        return std::string();
    });
}

}  // namespace
