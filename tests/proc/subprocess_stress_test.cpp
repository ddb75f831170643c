// A daemon whose threads are busy allocating, logging and reading the environment launches
// children over and over, on both start paths: no launch may hang, and no child or descriptor
// may be left. TELO_STRESS_LAUNCHES sets the number of launches (default 1000).
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include "proc/launch.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "telobackup/proc/subprocess.h"

using TELO::Backup::PipeFile;
using TELO::Backup::SubProcess;
using Clock = std::chrono::steady_clock;

namespace {

// A stuck child would outlive the aborted run and hold its output open.
void killChildren() {
    DIR *tasks = opendir("/proc/self/task");
    while (struct dirent *task = tasks != nullptr ? readdir(tasks) : nullptr) {
        std::ifstream children(std::string("/proc/self/task/") + task->d_name + "/children");
        for (int pid; children >> pid;) kill(pid, SIGKILL);
    }
    if (tasks != nullptr) closedir(tasks);
}

void busy(const std::atomic<bool> &stop, int index) {
    std::mt19937 random(static_cast<unsigned>(index));
    for (long round = 0; !stop; ++round) {
        // One thread only rewrites a variable, so that the C library's environment lock (which
        // nothing resets at a fork) is held most of the time: a child must never need it.
        if (index == 7) {
            setenv("TELO_STRESS_TOGGLE", round % 2 == 0 ? "a" : "b", 1);
            continue;
        }
        size_t size = 16 + random() % 65536;
        std::unique_ptr<char[]> block(new char[size]);
        memset(block.get(), index, size);
        syslog(LOG_DEBUG, "busy thread %d holds %zu bytes at %p", index, size, block.get());
        if (getenv("PATH") == nullptr) abort();
        if (index == 0 && round % 4096 == 0) testsupport::clearCapturedLines();
        // Busy, but sharing two cores with the launching thread.
        std::this_thread::yield();
    }
}

bool launchOnce(int i) {
    TELO::Backup::internal::setForkOnly(i / 8 % 2 == 1);
    if (i % 8 < 6) return SubProcess("/bin/true").call() == 0;
    int status = -1, pid;
    if (i % 8 == 6) {
        pid = SubProcess("/bin/true").callNoWait({});
        return pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
    }
    PipeFile *pipe = nullptr;
    char line[6] = {};
    pid = SubProcess("/bin/cat").callPipeOpen(&pipe);
    bool ok = pid > 0 && SubProcess::writePipe("ping\n", 1, 5, pipe) == 5 &&
              SubProcess::readPipe(line, 1, 5, pipe) == 5 && strcmp(line, "ping\n") == 0;
    return SubProcess::callPipeClose(pipe, pid) == 0 && ok;
}

TEST(SubProcessStress, BusyHostNeverHangsNorLeaks) {
    const char *count = getenv("TELO_STRESS_LAUNCHES");
    const int launches = count != nullptr && atoi(count) > 0 ? atoi(count) : 1000;
    const std::set<int> fdsBefore = testsupport::openFds();
    setenv("TELO_STRESS_TOGGLE", "a", 1);  // only replaced from now on, never added
    std::atomic<bool> stop{false};
    std::atomic<int> progress{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(busy, std::cref(stop), i);
    threads.emplace_back([&] {
        int seen = -1;
        for (auto since = Clock::now(); !stop;
             std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
            if (progress != seen) {
                seen = progress, since = Clock::now();
            } else if (Clock::now() - since > std::chrono::seconds(20)) {
                fprintf(stderr, "launch %d has not returned within 20 s: hung\n", seen);
                killChildren();
                abort();
            }
        }
    });

    int failures = 0;
    auto start = Clock::now();
    for (int i = 0; i < launches; ++i, ++progress) failures += launchOnce(i) ? 0 : 1;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    TELO::Backup::internal::setForkOnly(false);
    stop = true;
    for (std::thread &t : threads) t.join();
    testsupport::clearCapturedLines();
    printf("%d launches beside 8 busy threads in %.2f s\n", launches, seconds);
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(testsupport::noChildren()) << "a child or zombie was left";
    EXPECT_EQ(fdsBefore, testsupport::openFds()) << "descriptors leaked";
}

}  // namespace
