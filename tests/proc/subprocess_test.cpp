// SubProcess on real children (the test binary in helper modes). Every launching case runs on
// both start paths, and each leaves the caller as it found it: the same open descriptors, no
// child, the same SIGCHLD and SIGTERM dispositions.
#include "telobackup/proc/subprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include "internal/unique_fd.h"
#include "proc/exit_wait.h"
#include "proc/launch.h"
#include "support/child.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/last_error.h"

using TELO::Backup::LaunchFailure;
using TELO::Backup::PipeFile;
using TELO::Backup::SubProcess;
using TELO::Backup::internal::UniqueFd;
using namespace testsupport;
using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using Disposition = std::pair<void (*)(int), int>;

namespace {

// Handler and flags, without the restorer flag the C library adds to every action it sets.
Disposition disposition(int sig) {
    struct sigaction action = {};
    sigaction(sig, nullptr, &action);
    return {action.sa_handler, action.sa_flags & ~0x04000000};
}

// What follows `key` and one blank on each line of a child's report that starts with it.
Lines field(const std::string &report, const std::string &key) {
    Lines values;
    std::istringstream in(report);
    for (std::string name, rest; in >> name && std::getline(in, rest);) {
        if (name == key) values.push_back(rest.substr(1));
    }
    return values;
}

std::string linkOf(int fd) {
    char target[4096] = {};
    readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
    return target;
}

const std::string kNoFile = "No such file or directory";

class Launch : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override { TELO::Backup::internal::setForkOnly(GetParam()); }
    void TearDown() override {
        TELO::Backup::internal::setForkOnly(false);
        EXPECT_EQ(fds_, openFds()) << "descriptors leaked or closed";
        EXPECT_TRUE(noChildren()) << "a child was left behind";
        EXPECT_EQ(chld_, disposition(SIGCHLD));
        EXPECT_EQ(term_, disposition(SIGTERM));
    }
    TempDir dir;
    SyslogCapture log{"proc/subprocess"};
    const std::set<int> fds_ = openFds();
    const Disposition chld_ = disposition(SIGCHLD), term_ = disposition(SIGTERM);
};

INSTANTIATE_TEST_SUITE_P(Paths, Launch, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Fork" : "SharedMemory"; });

// Exit statuses come back raw; a child that fails before its program runs exits 127 after its
// error line, written by the caller under the child's pid. No PATH search and no shell: a blank
// belongs to the name. One row per way a launch fails.
TEST_P(Launch, ExitStatusesAndTheChildsLines) {
    std::string missing = dir.file("no/file");
    using Step = LaunchFailure::Step;
    struct Case {
        Lines command;
        std::function<void(SubProcess &)> set;
        int status;
        std::string error;  // the child's last error line
        LaunchFailure failure;
    } cases[] = {
        // clang-format off
        {helperCommand("exit", {"127"}), {}, 127, "", {}},  // its own 127, not a failed exec
        {{"ls -l", "x"}, {}, 127, "execv [ls -l] failed, " + kNoFile, {Step::kExec, ENOENT, -1}},
        {{"/nonexistent"}, [&](SubProcess &sp) { sp.setStdInput(missing); }, 127,
         "dup2 0 failed, " + kNoFile, {Step::kOpenStream, ENOENT, 0}},
        {{"/nonexistent"}, [](SubProcess &sp) { sp.setStdError(1000); }, 127,
         "dup2(2) failed, Bad file descriptor", {Step::kDupStream, EBADF, 2}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.command[0]);
        clearCapturedLines();
        TELO::Backup::clearLastErrorText();
        SubProcess sp(c.command);
        if (c.set) c.set(sp);
        LaunchFailure failure;
        failure.step = Step::kUnobserved;
        int status = 0, pid = sp.callNoWait({}, failure);
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_EQ(c.status << 8, status);
        EXPECT_EQ(std::make_tuple(c.failure.step, c.failure.error, c.failure.stream),
                  std::make_tuple(failure.step, failure.error, failure.stream));
        // The caller's thread keeps the last error line it wrote for the child.
        if (c.error.empty()) {
            EXPECT_EQ("", TELO::Backup::lastErrorText());
            continue;
        }
        EXPECT_EQ(1, log.count(LOG_ERR, "(" + std::to_string(pid) +
                                            ") [err] proc/subprocess:<line> " + c.error));
        EXPECT_EQ(log.lines().back().text, TELO::Backup::lastErrorText());
    }
}

// Unset streams are the null device, a kept stream is the caller's, a kept descriptor survives
// although close-on-exec, and nothing else reaches the program. Of the caller's environment only
// PATH does, before the program's own variables.
TEST_P(Launch, ChildGetsExactlyItsStreamsDescriptorsAndEnvironment) {
    std::string report = dir.file("report");
    int kept = open(report.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int stray = open("/dev/zero", O_RDONLY);
    SubProcess sp(helperCommand("describe", {"fd:" + std::to_string(kept)}));
    sp.setEnv("ZED", "last");
    sp.setEnv("ALPHA", "first");
    int status = -1, pid = sp.callNoWait({1, kept});
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ((Lines{"0 /dev/null", "1 " + linkOf(1), "2 /dev/null",
                     std::to_string(kept) + " " + report}),
              field(readFile(report), "fd"));
    EXPECT_EQ((Lines{"PATH=" + std::string(getenv("PATH")), "ALPHA=first", "ZED=last"}),
              field(readFile(report), "env"));
    close(kept);
    close(stray);
}

// Output files are appended to or created with the mode given, and a FIFO on standard input
// does not hold the launch: the child waits in its open for a writer, which the caller could
// never become if the launch waited for the exec.
TEST_P(Launch, StreamFilesAndAFifoInput) {
    mode_t oldMask = umask(022);
    writeFile(dir.file("in"), "new\n");
    writeFile(dir.file("old"), "old\n", 0644);
    SubProcess cat(helperCommand("cat"));
    cat.setStdInput(dir.file("in"));
    cat.setStdOutput(dir.file("old"), 0);
    cat.setStdError(dir.file("fresh"), 0640);
    EXPECT_EQ(0, cat.call());
    EXPECT_EQ(0644, fileMode(dir.file("old")));
    EXPECT_EQ(0640, fileMode(dir.file("fresh")));
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    cat.setStdInput(fifo);
    LaunchFailure failure;
    int status = -1, pid = cat.callNoWait({}, failure);
    EXPECT_EQ(LaunchFailure::kUnobserved, failure.step);
    int writer = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(3, write(writer, "hi\n", 3));
    close(writer);
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ("old\nnew\nhi\n", readFile(dir.file("old")));
    umask(oldMask);
}

int hostHandlerCalls = 0;

TEST_P(Launch, SignalsAroundTheChild) {
    std::string report = dir.file("report");
    Lines describe = helperCommand("describe", {report}), exit5 = helperCommand("exit", {"5"});
    Lines signaller = helperCommand("signal_parent", {"TERM", "42"});
    EXPECT_CHILD_OK([&] {
        // After a conversation SIGPIPE is ignored; with a signal blocked too, the child still
        // starts with an empty mask and SIGPIPE at its default.
        PipeFile *pipe = nullptr;
        int pid = SubProcess(exit5).callPipeOpen(&pipe);
        CHILD_CHECK_EQ(5 << 8, SubProcess::callPipeClose(pipe, pid));
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        CHILD_CHECK_EQ(0, SubProcess(describe).call());
        std::string seen = readFile(report);
        CHILD_CHECK(field(seen, "SigBlk:") == Lines{"0000000000000000"});
        CHILD_CHECK(
            (std::stoull(field(seen, "SigIgn:").at(0), nullptr, 16) & (1 << (SIGPIPE - 1))) == 0);

        // SIGTERM to the waiting caller reaches the child, and the host's handler too.
        struct sigaction host = {};
        host.sa_handler = [](int) { ++hostHandlerCalls; };
        sigaction(SIGTERM, &host, nullptr);
        const Disposition hostTerm = disposition(SIGTERM);
        CHILD_CHECK_EQ(42 << 8, SubProcess(signaller).call());
        CHILD_CHECK(hostHandlerCalls >= 1 && hostTerm == disposition(SIGTERM));

        // SA_NOCLDWAIT is lifted for the wait and put back.
        struct sigaction chld = {};
        chld.sa_flags = SA_NOCLDWAIT | SA_RESTART;
        sigaction(SIGCHLD, &chld, nullptr);
        const Disposition hostChld = disposition(SIGCHLD);
        CHILD_CHECK_EQ(5 << 8, SubProcess(exit5).call());
        CHILD_CHECK(SubProcess(exit5).callBackground(false) && hostChld == disposition(SIGCHLD));
    });
}

TEST_P(Launch, BackgroundGrandchildIsDetached) {
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // Opened first, so that opening the output never waits for a reader; end of file is the
    // grandchild's end.
    UniqueFd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    SubProcess sp(helperCommand("describe", {"fd:1"}));
    sp.setStdOutput(fifo, 0);
    ASSERT_TRUE(sp.callBackground(true));
    // Until the grandchild has opened and closed its end: a reader opened before any writer
    // sees no hang-up, so poll waits for the grandchild rather than racing it.
    std::string report;
    char buffer[4096];
    pollfd ready = {reader.get(), POLLIN, 0};
    for (ssize_t n = 1; n > 0 && poll(&ready, 1, 60000) == 1;) {
        n = read(reader.get(), buffer, sizeof buffer);
        if (n > 0) report.append(buffer, n);
    }
    EXPECT_EQ(field(report, "pid"), field(report, "sid"));
}

TEST_P(Launch, ExecReplacesTheCaller) {
    std::string report = dir.file("report");
    pid_t pid = fork();
    if (pid == 0) _exit(SubProcess(helperCommand("describe", {report})).exec() + 99);
    EXPECT_EQ(0, waitExitCode(pid));
    EXPECT_EQ(Lines{std::to_string(pid)}, field(readFile(report), "pid"));
}

// The child is waited for on a pidfd where the kernel has them, else with naps; both collect it
// alike.
TEST_P(Launch, PipeConversations) {
    for (bool naps : {false, true}) {
        SCOPED_TRACE(naps ? "naps" : "pidfd");
        TELO::Backup::internal::setExitWaitByNaps(naps);
        PipeFile *pipe = nullptr;
        int pid = SubProcess(helperCommand("cat", {"5"})).callPipeOpen(&pipe);
        EXPECT_TRUE(fcntl(SubProcess::getReadFD(pipe), F_GETFD) & FD_CLOEXEC);
        char buffer[7] = {};
        EXPECT_EQ(2u, SubProcess::writePipe("hello\n", 3, 2, pipe));
        EXPECT_EQ(6u, SubProcess::readPipe(buffer, 1, 6, pipe));
        EXPECT_STREQ("hello\n", buffer);
        EXPECT_EQ(5 << 8, SubProcess::callPipeClose(pipe, pid));

        // A child that ignores end of file gets SIGTERM after half a second; the check right
        // after usually comes too early, and the child is left to the caller.
        pid = SubProcess(helperCommand("ignore_eof")).callPipeOpen(&pipe);
        auto start = Clock::now();
        int status = SubProcess::callPipeClose(pipe, pid);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(500));
        if (status == -1) {
            ASSERT_EQ(pid, waitpid(pid, &status, 0));
        }
        EXPECT_EQ(SIGTERM, status);
    }
    TELO::Backup::internal::setExitWaitByNaps(false);
}

TEST_P(Launch, ProcessTableExhaustionIsReportedByEveryStart) {
    Lines exit0 = helperCommand("exit");
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        clearCapturedLines();
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        PipeFile *pipe = nullptr;
        SubProcess sp(exit0);
        LaunchFailure failure;
        CHILD_CHECK(sp.call(failure) == -1 && errno == EAGAIN &&
                    failure.step == LaunchFailure::kFork && failure.error == EAGAIN);
        CHILD_CHECK(sp.callNoWait({}) == -1 && !sp.callBackground(true));
        CHILD_CHECK(sp.callPipeOpen(&pipe) == -1 && pipe == nullptr);
        CHILD_CHECK_EQ(4, log.err("fork failed, Resource temporarily unavailable"));
    });
}

// A daemon whose threads are busy allocating, logging and rewriting the environment launches
// children over and over, on both start paths: no launch may hang, and no child or descriptor
// may be left (a hang is ended by the test's time limit). On a machine too busy (or a build too
// slow) to finish 1000 launches in 40 s the run stops there, once every kind has run 16 times.
void busy(const std::atomic<bool> &stop, int index) {
    for (long round = 0; !stop; ++round) {
        // One thread only rewrites a variable, so that the C library's environment lock (which
        // nothing resets at a fork) is held most of the time: a child must never need it.
        if (index == 7) {
            setenv("TELO_STRESS_TOGGLE", round % 2 == 0 ? "a" : "b", 1);
            continue;
        }
        std::unique_ptr<char[]> block(new char[16 + (round * 7919 + index) % 65536]);
        syslog(LOG_DEBUG, "busy thread %d holds %p", index, block.get());
        if (index == 0 && round % 4096 == 0) testsupport::clearCapturedLines();
        std::this_thread::yield();  // busy, but sharing two cores with the launching thread
    }
}

// Launch `i` of 4 kinds (three waited calls, one conversation) on either path.
bool launchOnce(int i) {
    TELO::Backup::internal::setForkOnly(i / 4 % 2 == 1);
    if (i % 4 < 3) return SubProcess("/bin/true").call() == 0;
    PipeFile *pipe = nullptr;
    char line[6] = {};
    int pid = SubProcess("/bin/cat").callPipeOpen(&pipe);
    bool ok = pid > 0 && SubProcess::writePipe("ping\n", 1, 5, pipe) == 5 &&
              SubProcess::readPipe(line, 1, 5, pipe) == 5 && strcmp(line, "ping\n") == 0;
    return SubProcess::callPipeClose(pipe, pid) == 0 && ok;
}

TEST(SubProcessStress, BusyHostNeverHangsNorLeaks) {
    const std::set<int> fdsBefore = testsupport::openFds();
    setenv("TELO_STRESS_TOGGLE", "a", 1);  // only replaced from now on, never added
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(busy, std::cref(stop), i);
    int failures = 0, done = 0;
    for (auto start = Clock::now(); done < 1000; ++done) {
        if (done >= 8 * 8 && Clock::now() - start > std::chrono::seconds(40)) break;
        failures += launchOnce(done) ? 0 : 1;
    }
    TELO::Backup::internal::setForkOnly(false);
    stop = true;
    for (std::thread &t : threads) t.join();
    testsupport::clearCapturedLines();
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(testsupport::noChildren()) << "a child or zombie was left";
    EXPECT_EQ(fdsBefore, testsupport::openFds()) << "descriptors leaked";
}

}  // namespace
