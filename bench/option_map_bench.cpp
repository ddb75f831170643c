// Option map locking and identifier allocation against baselines from the same run:
// - 4 processes allocating increasing identifiers with one lock token on one file, against 4
//   processes running the least such an allocation needs: lock, read, rewrite with fsync,
//   rename, unlock (with and without a sync of the directory after the rename);
// - lock() + unlock() pairs against plain open + flock + close of the same lock file.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include "support/ratio_reporter.h"
#include "telobackup/option_map.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::OptionMap;
using TELO::Backup::Path;

namespace {

constexpr int kProcesses = 4;
constexpr int kPerProcess = 25;

const std::string &token() {
    static const std::string name = "bench-ids-" + std::to_string(getpid());
    return name;
}

std::string lockFilePath() {
    return Path::join(Path::getIpcTempPath(), "lock", token());
}

std::string scratchFile() {
    static const std::string dir = [] {
        const char *tmp = getenv("TMPDIR");
        std::string path =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/telo-ids-bench.XXXXXX";
        if (mkdtemp(&path[0]) == nullptr) abort();
        return path;
    }();
    return dir + "/ids.conf";
}

bool allocateWithLibrary(const std::string &file) {
    OptionMap map;
    return map.setLockToken(token()) && map.optSectionCreateIncreaseId(file, "job");
}

// Lock, read, rewrite with the counter raised and a new header, fsync, rename, unlock.
bool allocateFloor(const std::string &file, bool syncDirectory) {
    int lockFd = open(lockFilePath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (lockFd < 0 || flock(lockFd, LOCK_EX) != 0) return false;
    std::string content;
    int in = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[64 * 1024];
    for (ssize_t n; in >= 0 && (n = read(in, buffer, sizeof(buffer))) > 0;)
        content.append(buffer, n);
    if (in >= 0) close(in);
    long id = content.empty() ? 1 : strtol(content.c_str() + 10, nullptr, 10) + 1;
    size_t firstLine = content.find('\n');
    std::string rest = firstLine == std::string::npos ? "" : content.substr(firstLine + 1);
    std::string next =
        "jobid_max=" + std::to_string(id) + "\n" + rest + "[job" + std::to_string(id) + "]\n";
    std::string temp = file + ".floor";
    int out = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = out >= 0 &&
              write(out, next.data(), next.size()) == static_cast<ssize_t>(next.size()) &&
              fsync(out) == 0 && close(out) == 0 && rename(temp.c_str(), file.c_str()) == 0;
    if (ok && syncDirectory) {
        int dir = open(Path::dirname(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ok = dir >= 0 && fsync(dir) == 0 && close(dir) == 0;
    }
    flock(lockFd, LOCK_UN);
    close(lockFd);
    return ok;
}

template <typename Allocate>
void timeProcesses(benchmark::State &state, Allocate allocate) {
    const std::string file = scratchFile();
    for (auto _ : state) {
        unlink(file.c_str());
        auto start = std::chrono::steady_clock::now();
        std::vector<pid_t> pids;
        for (int p = 0; p < kProcesses; ++p) {
            pid_t pid = fork();
            if (pid == 0) {
                for (int i = 0; i < kPerProcess; ++i) {
                    if (!allocate(file)) _exit(1);
                }
                _exit(0);
            }
            pids.push_back(pid);
        }
        bool ok = true;
        for (pid_t pid : pids) {
            int status = 0;
            ok = waitpid(pid, &status, 0) == pid && status == 0 && ok;
        }
        auto end = std::chrono::steady_clock::now();
        if (!ok) state.SkipWithError("allocation failed");
        // Time per allocation.
        state.SetIterationTime(std::chrono::duration<double>(end - start).count() /
                               (kProcesses * kPerProcess));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_IncreaseIds(benchmark::State &state) {
    timeProcesses(state, allocateWithLibrary);
}

void BM_FloorIds(benchmark::State &state) {
    timeProcesses(state, [](const std::string &file) { return allocateFloor(file, false); });
}

void BM_FloorIdsSyncDir(benchmark::State &state) {
    timeProcesses(state, [](const std::string &file) { return allocateFloor(file, true); });
}

void BM_LockUnlock(benchmark::State &state) {
    OptionMap map;
    map.setLockToken(token());
    for (auto _ : state) {
        if (!map.lock() || !map.unlock()) state.SkipWithError("lock failed");
    }
}

void BM_OpenFlockClose(benchmark::State &state) {
    std::string path = lockFilePath();
    for (auto _ : state) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0 || flock(fd, LOCK_EX) != 0 || flock(fd, LOCK_UN) != 0) {
            state.SkipWithError("flock failed");
        }
        close(fd);
    }
}

BENCHMARK(BM_IncreaseIds)
    ->UseManualTime()
    ->Iterations(4)
    ->Repetitions(3)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorIds)
    ->UseManualTime()
    ->Iterations(4)
    ->Repetitions(3)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorIdsSyncDir)
    ->UseManualTime()
    ->Iterations(4)
    ->Repetitions(3)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMicrosecond);
// A few microseconds each: the minimum over repetitions is the estimate least disturbed by
// other work on the machine.
void shortCase(benchmark::internal::Benchmark *b) {
    b->Repetitions(9)->ReportAggregatesOnly()->ComputeStatistics("min", telobench::minimumOf);
}

BENCHMARK(BM_LockUnlock)->Apply(shortCase);
BENCHMARK(BM_OpenFlockClose)->Apply(shortCase);

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    std::cout << "config file: " << scratchFile() << ", " << kProcesses << " processes x "
              << kPerProcess << " allocations per iteration" << std::endl;
    // Creates the IPC tree and the lock file for the floors.
    OptionMap warm;
    warm.setLockToken(token());
    warm.lock();
    warm.unlock();
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("increasing identifiers, time per allocation with 4 processes");
    reporter.ratio("optSectionCreateIncreaseId / floor", "BM_IncreaseIds", "BM_FloorIds/", 1.5);
    reporter.ratio("optSectionCreateIncreaseId / floor + dir sync", "BM_IncreaseIds",
                   "BM_FloorIdsSyncDir", 0);
    reporter.heading("lock() + unlock() / open + flock + close");
    reporter.ratio("lock + unlock", "BM_LockUnlock", "BM_OpenFlockClose", 1.5);
    unlink(lockFilePath().c_str());
    unlink(scratchFile().c_str());
    rmdir(Path::dirname(scratchFile()).c_str());
    return 0;
}
