// UtilExec with the fake platform, whose TLIBCProcFork is a real fork unless switched to fail.
// Cases that receive signals or change dispositions run in a forked child.
#include "telobackup/proc/exec.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"

using TELO::Backup::UtilExec;
using namespace testsupport;

namespace {

std::vector<int> callbacks;
void record(int sig, int result) {
    callbacks.insert(callbacks.end(), {sig, result});
}

int execHelper(const std::string &name, const std::vector<std::string> &args) {
    std::vector<std::string> command = helperCommand(name, args);
    std::vector<char *> argv;
    for (std::string &arg : command) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    return UtilExec().Execv(argv[0], argv.data(), record);
}

void (*handlerOf(int sig))(int) {
    struct sigaction action = {};
    sigaction(sig, nullptr, &action);
    return action.sa_handler;
}

void hostHandler(int) {}

TEST(Exec, ResultsAndForkFailure) {
    fakeplatform::reset();
    SyslogCapture log;
    EXPECT_EQ(3, execHelper("exit", {"3"}));
    // A path that cannot be run makes the child abort: a signal death.
    EXPECT_CHILD_OK([] {
        struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        char path[] = "/nonexistent";
        char *argv[] = {path, nullptr};
        CHILD_CHECK_EQ(-1, UtilExec().Execv(path, argv, nullptr));
    });
    fakeplatform::setFail("TLIBCProcFork");
    EXPECT_EQ(-1, execHelper("exit", {"0"}));
    EXPECT_EQ(2, fakeplatform::calls("TLIBCProcFork"));
    EXPECT_EQ(0u, log.size()) << log.dump();
    EXPECT_TRUE(noChildren());
    EXPECT_TRUE(callbacks.empty());
    EXPECT_TRUE(handlerOf(SIGTERM) == SIG_DFL && handlerOf(SIGINT) == SIG_DFL);
    fakeplatform::reset();
}

TEST(Exec, ForwardsSignalsCallsBackAndRestoresDispositions) {
    EXPECT_CHILD_OK([] {
        signal(SIGINT, hostHandler);
        struct sigaction chld = {};
        chld.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &chld, nullptr);
        CHILD_CHECK_EQ(7, execHelper("signal_parent", {"TERM", "7"}));
        CHILD_CHECK_EQ(8, execHelper("signal_parent", {"INT", "8"}));
        // No signal, no call back; SA_NOCLDWAIT is lifted for the wait and put back.
        CHILD_CHECK_EQ(4, execHelper("exit", {"4"}));
        CHILD_CHECK(callbacks == (std::vector<int>{SIGTERM, 7, SIGINT, 8}));
        sigaction(SIGCHLD, nullptr, &chld);
        CHILD_CHECK((chld.sa_flags & SA_NOCLDWAIT) != 0);
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler && handlerOf(SIGTERM) == SIG_DFL);
        // Restoring before anything was saved changes nothing.
        UtilExec exec;
        exec.RestoreSigHandler();
        CHILD_CHECK(handlerOf(SIGINT) == hostHandler);
    });
}

}  // namespace
