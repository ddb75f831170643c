// Process inspection against real processes: this one, forked children that renamed
// themselves, and a zombie.
#include "telobackup/proc/proc_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>

#include "support/child.h"
#include "support/syslog_capture.h"

using TELO::Backup::Process;
using namespace testsupport;

namespace {

// A forked child that takes `name` as its command name, blocks SIGTERM (so that a signal sent
// to it stays visible as pending) and waits to be killed.
class NamedChild {
  public:
    explicit NamedChild(const std::string &name) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_NAME, name.c_str());
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGTERM);
            sigprocmask(SIG_BLOCK, &set, nullptr);
            if (write(fds[1], "r", 1) != 1) _exit(1);
            for (;;) pause();
        }
        close(fds[1]);
        char ready;
        if (read(fds[0], &ready, 1) != 1) ADD_FAILURE() << "named child did not start";
        close(fds[0]);
    }
    ~NamedChild() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    int pid() const { return pid_; }

    // Whether a SIGTERM was sent to it (blocked, it stays pending).
    bool termPending() const {
        unsigned long long pending = std::stoull(statusField("ShdPnd:"), nullptr, 16) |
                                     std::stoull(statusField("SigPnd:"), nullptr, 16);
        return (pending >> (SIGTERM - 1)) & 1;
    }

    // It reports ready just before it goes to sleep; there is no event for the moment it does.
    bool waitUntilAsleep() const {
        for (int i = 0; i < 5000; ++i) {
            if (statusField("State:").compare(0, 1, "S") == 0) return true;
            usleep(1000);
        }
        return false;
    }

  private:
    std::string statusField(const std::string &key) const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.compare(0, key.size(), key) == 0) {
                size_t start = line.find_first_not_of(" \t", key.size());
                return start == std::string::npos ? "" : line.substr(start);
            }
        }
        return "0";
    }

    pid_t pid_ = -1;
};

// The pid of a child that has been reaped, so nothing runs under it (for a while).
int deadPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

TEST(Process, IsAliveKeepsErrno) {
    errno = 1234;
    EXPECT_TRUE(Process::isAlive(getpid()));
    EXPECT_EQ(1234, errno);
    EXPECT_FALSE(Process::isAlive(deadPid()));
    EXPECT_EQ(1234, errno);
    EXPECT_EQ(getpid(), Process::getPid());
    // Another user's process exists although it cannot be signalled.
    EXPECT_CHILD_OK(
        [] {
            errno = 77;
            CHILD_CHECK(Process::isAlive(1));
            CHILD_CHECK_EQ(77, errno);
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
}

TEST(Process, StateLetters) {
    EXPECT_EQ(0, Process::getStatus(0));
    EXPECT_EQ(0, Process::getStatus(-5));
    EXPECT_EQ('R', Process::getStatus(getpid()));
    EXPECT_EQ(0, Process::getStatus(deadPid()));

    // A name holding ") " and a state-like letter must not fool the parser: the child, once
    // asleep (as its unambiguous status file says), reads as 'S'.
    NamedChild tricky("x) R (y");
    ASSERT_TRUE(tricky.waitUntilAsleep());
    EXPECT_EQ('S', Process::getStatus(tricky.pid()));
    EXPECT_FALSE(Process::isZombie(tricky.pid()));

    pid_t zombie = fork();
    if (zombie == 0) _exit(0);
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, zombie, &info, WEXITED | WNOWAIT));
    EXPECT_EQ('Z', Process::getStatus(zombie));
    EXPECT_TRUE(Process::isZombie(zombie));
    EXPECT_TRUE(Process::isAlive(zombie));
    waitpid(zombie, nullptr, 0);
}

TEST(Process, CommandNames) {
    SyslogCapture log;
    std::string name = "untouched";
    EXPECT_FALSE(Process::getProcCmd(0, name));
    EXPECT_TRUE(log.has(LOG_ERR, "(<pid>) [err] proc/proc_util:<line> Error: invalid pid [0]"));
    int dead = deadPid();
    EXPECT_FALSE(Process::getProcCmd(dead, name));
    EXPECT_TRUE(
        log.has(LOG_ERR, "(<pid>) [err] proc/proc_util:<line> Error: failed to open [/proc/" +
                             std::to_string(dead) + "/status] No such file or directory"));
    EXPECT_EQ("untouched", name);

    NamedChild plain("worker-1");
    EXPECT_TRUE(Process::getProcCmd(plain.pid(), name));
    EXPECT_EQ("worker-1", name);
    // The first blank-free word only.
    NamedChild blank("two words");
    EXPECT_TRUE(Process::getProcCmd(blank.pid(), name));
    EXPECT_EQ("two", name);
    EXPECT_EQ(2u, log.size()) << log.dump();
}

// The kernel keeps 15 characters of a name: the expected name matches when the kernel's name
// is a prefix of it, never the other way round.
TEST(Process, NameMatchIsAPrefixTestOnTheExpectedName) {
    NamedChild child("abcdefghijklmnopqrstuvw");
    bool matched = false;
    EXPECT_TRUE(Process::isAlive(child.pid(), "abcdefghijklmnopqrstuvw", matched));
    EXPECT_TRUE(matched);
    EXPECT_TRUE(Process::isAlive(child.pid(), "abcdefghijklmno", matched));
    EXPECT_TRUE(matched);
    EXPECT_TRUE(Process::isAlive(child.pid(), "abcdefghijklmn", matched));
    EXPECT_FALSE(matched);
    EXPECT_TRUE(Process::isAlive(child.pid(), "abcdefghijklmnX", matched));
    EXPECT_FALSE(matched);
    matched = true;
    EXPECT_TRUE(Process::isAlive(deadPid(), "x", matched));
    EXPECT_FALSE(matched);
}

TEST(Process, SafeKillSignalsOnlyTheExpectedCommand) {
    SyslogCapture log;
    NamedChild child("backupd");
    EXPECT_TRUE(Process::safeKillProc(deadPid(), "backupd", SIGTERM));
    EXPECT_TRUE(Process::safeKillProc(child.pid(), "restored", SIGTERM));
    EXPECT_FALSE(child.termPending());
    EXPECT_EQ(0u, log.size()) << log.dump();

    EXPECT_TRUE(Process::safeKillProc(child.pid(), "backupd", SIGTERM));
    EXPECT_TRUE(child.termPending());
    EXPECT_TRUE(log.has(LOG_DEBUG, "(<pid>) [debug] proc/proc_util:<line> kill process [" +
                                       std::to_string(child.pid()) + "], signal: [15]"));

    EXPECT_TRUE(Process::KillProc(child.pid(), 0));
    errno = 0;
    EXPECT_FALSE(Process::KillProc(deadPid(), SIGTERM));
    EXPECT_EQ(ESRCH, errno);
    EXPECT_EQ(3u, log.size()) << log.dump();
}

// Without /proc a live process cannot be checked: nothing is sent.
TEST(Process, UnreadableProcFailsTheCheck) {
    NamedChild child("backupd");
    int pid = child.pid();
    EXPECT_CHILD_OK(
        [pid] {
            if (mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0) return std::string("mount");
            SyslogCapture log;
            bool matched = true;
            CHILD_CHECK(!Process::isAlive(pid, "backupd", matched));
            CHILD_CHECK(!matched);
            CHILD_CHECK(!Process::safeKillProc(pid, "backupd", SIGTERM));
            std::string prefix = "(<pid>) [err] proc/proc_util:<line> ";
            CHILD_CHECK_EQ(2, log.count(LOG_ERR, prefix + "getting process(" + std::to_string(pid) +
                                                     ")'s command failed"));
            CHILD_CHECK(log.has(LOG_ERR, prefix + "failed to check proc info with pid: [" +
                                             std::to_string(pid) + "] for signal: [15]"));
            CHILD_CHECK_EQ(0, Process::getStatus(pid));
            return std::string();
        },
        ChildOptions{.privateMounts = true});
    EXPECT_FALSE(child.termPending());
}

}  // namespace
