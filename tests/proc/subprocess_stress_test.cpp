// A daemon whose threads are busy allocating, logging and reading the environment launches
// children over and over, on both launch paths: no launch may hang, and no child or descriptor
// may be left behind. TELO_STRESS_LAUNCHES sets the number of launches (1000 by default; a
// longer run belongs with the benchmarks).
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "proc/child_programs.h"
#include "proc/launch.h"
#include "support/syslog_capture.h"
#include "telobackup/proc/subprocess.h"

using TELO::Backup::PipeFile;
using TELO::Backup::SubProcess;

namespace {

using Clock = std::chrono::steady_clock;

// Ends the run with a message when one launch takes longer than `limit`: a hung launch would
// otherwise stall it for ever.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit) : thread_([this, limit] { watch(limit); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    void beat(int launch) {
        std::lock_guard<std::mutex> lock(mutex_);
        launch_ = launch;
        ++beats_;
        wake_.notify_one();
    }

  private:
    static void killChildren() {
        DIR *tasks = opendir("/proc/self/task");
        while (struct dirent *task = tasks != nullptr ? readdir(tasks) : nullptr) {
            if (task->d_name[0] == '.') continue;
            std::ifstream children(std::string("/proc/self/task/") + task->d_name + "/children");
            int pid;
            while (children >> pid) kill(pid, SIGKILL);
        }
        if (tasks != nullptr) closedir(tasks);
    }

    void watch(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            long seen = beats_;
            if (!wake_.wait_for(lock, limit, [&] { return stop_ || beats_ != seen; })) {
                fprintf(stderr, "launch %d has not returned within %lld s: hung\n", launch_,
                        static_cast<long long>(limit.count()));
                fflush(stderr);
                // A stuck child would outlive the run and hold its output open.
                killChildren();
                abort();
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    int launch_ = -1;
    long beats_ = 0;
    std::thread thread_;
};

void busyThread(const std::atomic<bool> &stop, int index) {
    std::mt19937 random(static_cast<unsigned>(index));
    long round = 0;
    while (!stop.load(std::memory_order_relaxed)) {
        size_t size = 16 + random() % 65536;
        std::unique_ptr<char[]> block(new char[size]);
        memset(block.get(), index, size);
        syslog(LOG_DEBUG, "busy thread %d holds %zu bytes", index, size);
        const char *path = getenv("PATH");
        if (path != nullptr && block[0] != index) abort();
        // One thread also rewrites a variable, holding the C library's environment lock
        // (which nothing resets at a fork) for a moment each time: a child must never need it.
        if (index == 7) setenv("TELO_STRESS_TOGGLE", round % 2 == 0 ? "a" : "b", 1);
        ++round;
        // The capture keeps every line; keep it small.
        if (index == 0 && round % 4096 == 0) testsupport::clearCapturedLines();
    }
}

int launchCount() {
    const char *text = getenv("TELO_STRESS_LAUNCHES");
    int count = text != nullptr ? atoi(text) : 0;
    return count > 0 ? count : 1000;
}

TEST(SubProcessStress, BusyHostNeverHangsNorLeaks) {
    if (access("/bin/true", X_OK) != 0 || access("/bin/cat", X_OK) != 0) {
        GTEST_SKIP() << "needs /bin/true and /bin/cat";
    }
    const int launches = launchCount();
    std::set<int> fdsBefore = proctest::openFds();
    // Only ever replaced afterwards: the environment array itself is never reallocated.
    setenv("TELO_STRESS_TOGGLE", "a", 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int i = 0; i < 8; ++i) busy.emplace_back(busyThread, std::cref(stop), i);

    int failures = 0;
    Clock::duration slowest{};
    auto start = Clock::now();
    {
        Watchdog watchdog(std::chrono::seconds(20));
        for (int i = 0; i < launches; ++i) {
            watchdog.beat(i);
            TELO::Backup::internal::setForkOnly(i % 2 == 1);
            auto launchStart = Clock::now();
            switch (i % 4) {
                case 0:
                case 1:
                    if (SubProcess("/bin/true").call() != 0) ++failures;
                    break;
                case 2: {
                    int pid = SubProcess("/bin/true").callNoWait({});
                    int status = -1;
                    if (pid <= 0 || waitpid(pid, &status, 0) != pid || status != 0) ++failures;
                    break;
                }
                case 3: {
                    PipeFile *pipe = nullptr;
                    int pid = SubProcess("/bin/cat").callPipeOpen(&pipe);
                    char line[6] = {};
                    if (pid <= 0 || SubProcess::writePipe("ping\n", 1, 5, pipe) != 5 ||
                        SubProcess::readPipe(line, 1, 5, pipe) != 5 ||
                        strcmp(line, "ping\n") != 0) {
                        ++failures;
                    }
                    if (SubProcess::callPipeClose(pipe, pid) != 0) ++failures;
                    break;
                }
            }
            slowest = std::max(slowest, Clock::now() - launchStart);
        }
        TELO::Backup::internal::setForkOnly(false);
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    for (std::thread &t : busy) t.join();
    testsupport::clearCapturedLines();

    printf("%d launches beside 8 busy threads in %.2f s, slowest %.1f ms\n", launches, seconds,
           std::chrono::duration<double, std::milli>(slowest).count());
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(proctest::noChildren()) << "a child or zombie was left";
    EXPECT_EQ(fdsBefore, proctest::openFds()) << "descriptors leaked";
}

}  // namespace
