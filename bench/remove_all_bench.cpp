// removeAll of 20,000 files in 200 directories against `rm -rf` of an identical tree on the same
// (memory-backed when possible) file system.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include "support/ratio_reporter.h"
#include "telobackup/path/path_util.h"

extern char **environ;

namespace {

constexpr int kDirectories = 200;
constexpr int kFilesPerDirectory = 100;

std::string scratchBase() {
    if (access("/dev/shm", W_OK) == 0) return "/dev/shm";
    const char *tmp = getenv("TMPDIR");
    return tmp != nullptr ? tmp : "/tmp";
}

std::string buildTree() {
    std::string root = scratchBase() + "/telo-rm-bench.XXXXXX";
    if (mkdtemp(&root[0]) == nullptr) abort();
    for (int d = 0; d < kDirectories; ++d) {
        std::string dir = root + "/dir" + std::to_string(d);
        if (mkdir(dir.c_str(), 0755) != 0) abort();
        for (int f = 0; f < kFilesPerDirectory; ++f) {
            std::string file = dir + "/file-with-a-name-" + std::to_string(f);
            int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) abort();
            close(fd);
        }
    }
    return root;
}

template <typename Remove>
void timeRemoval(benchmark::State &state, Remove remove) {
    for (auto _ : state) {
        std::string root = buildTree();
        auto start = std::chrono::steady_clock::now();
        bool ok = remove(root);
        auto end = std::chrono::steady_clock::now();
        if (!ok || access(root.c_str(), F_OK) == 0) {
            state.SkipWithError("tree not removed");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    state.SetItemsProcessed(state.iterations() * kDirectories * (kFilesPerDirectory + 1));
}

void BM_RemoveAll(benchmark::State &state) {
    timeRemoval(state, [](const std::string &root) { return TELO::Backup::removeAll(root); });
}

void BM_RmRf(benchmark::State &state) {
    timeRemoval(state, [](const std::string &root) {
        const char *argv[] = {"rm", "-rf", root.c_str(), nullptr};
        pid_t pid;
        if (posix_spawn(&pid, "/bin/rm", nullptr, nullptr, const_cast<char **>(argv), environ) !=
            0) {
            return false;
        }
        int status = 0;
        return waitpid(pid, &status, 0) == pid && status == 0;
    });
}

BENCHMARK(BM_RmRf)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(BM_RemoveAll)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(5)
    ->ReportAggregatesOnly();

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    std::cout << "scratch file system: " << scratchBase() << std::endl;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("removeAll / rm -rf (20,000 files in 200 directories)");
    reporter.ratio("removeAll", "BM_RemoveAll", "BM_RmRf", 1.15);
    return 0;
}
