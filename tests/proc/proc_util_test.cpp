// Process inspection against real processes: this one, forked children that renamed
// themselves, and a zombie.
#include "telobackup/proc/proc_util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/process.h"
#include "support/syslog_capture.h"

using TELO::Backup::Process;
using namespace testsupport;

namespace {

// A forked child named `name` that blocks SIGTERM (a signal sent stays visible as pending) and
// sleeps until killed.
class NamedChild {
  public:
    explicit NamedChild(const char *name) {
        if ((pid = fork()) == 0) {
            sigset_t term;
            sigemptyset(&term);
            sigaddset(&term, SIGTERM);
            sigprocmask(SIG_BLOCK, &term, nullptr);
            prctl(PR_SET_NAME, name);
            _exit(pause());
        }
        // Renamed once its mask is set, then asleep once it is in pause().
        std::string comm = std::string(name).substr(0, 15);
        for (int i = 0; i < 5000 && (status("Name:") != comm || status("State:")[0] != 'S'); ++i) {
            usleep(1000);
        }
    }
    ~NamedChild() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::string status(const std::string &key) const { return procStatus(pid, key); }
    bool termPending() const {
        return ((std::stoull(status("ShdPnd:"), nullptr, 16) >> (SIGTERM - 1)) & 1) != 0;
    }
    pid_t pid;
};

int deadPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

TEST(Process, LivenessAndStateLetters) {
    EXPECT_TRUE(Process::isAlive(getpid()));
    EXPECT_FALSE(Process::isAlive(deadPid()));
    // A name holding ") " and a state letter must not fool the parser.
    NamedChild tricky("x) R (y");
    EXPECT_EQ('S', Process::getStatus(tricky.pid));
    EXPECT_FALSE(Process::isZombie(tricky.pid));
    pid_t zombie = fork();
    if (zombie == 0) _exit(0);
    siginfo_t info;
    ASSERT_EQ(0, waitid(P_PID, zombie, &info, WEXITED | WNOWAIT));
    EXPECT_TRUE(Process::isZombie(zombie) && Process::isAlive(zombie));
    waitpid(zombie, nullptr, 0);
    // Another user's process exists although it cannot be signalled.
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [] { CHILD_CHECK(Process::isAlive(1)); });
}

// The kernel keeps 15 characters of a name: an expected name matches when it starts with them.
TEST(Process, CommandNamesAndTheirPrefixMatch) {
    std::string name;
    EXPECT_FALSE(Process::getProcCmd(deadPid(), name));
    NamedChild child("abcdefghijklmnopqrstuvw");
    EXPECT_TRUE(Process::getProcCmd(child.pid, name));
    EXPECT_EQ("abcdefghijklmno", name);
    for (auto [expected, matches] : {std::pair<const char *, bool>{"abcdefghijklmnopqrstuvw", true},
                                     {"abcdefghijklmn", false}}) {
        bool matched = !matches;
        EXPECT_TRUE(Process::isAlive(child.pid, expected, matched));
        EXPECT_EQ(matches, matched) << expected;
    }
}

TEST(Process, SafeKillSignalsOnlyTheExpectedCommand) {
    NamedChild child("backupd");
    EXPECT_TRUE(Process::safeKillProc(deadPid(), "backupd", SIGTERM));
    EXPECT_TRUE(Process::safeKillProc(child.pid, "restored", SIGTERM));
    EXPECT_FALSE(child.termPending());
    EXPECT_TRUE(Process::safeKillProc(child.pid, "backupd", SIGTERM));
    EXPECT_TRUE(child.termPending());

    // Without /proc a live process cannot be checked, and nothing is sent.
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [&child] {
        SyslogCapture childLog{"proc/proc_util"};
        CHILD_CHECK(mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0);
        CHILD_CHECK(!Process::safeKillProc(child.pid, "backupd", SIGTERM));
        CHILD_CHECK_EQ(1, childLog.err("failed to check proc info with pid: [" +
                                       std::to_string(child.pid) + "] for signal: [15]"));
    });
}

}  // namespace
