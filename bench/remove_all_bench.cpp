// removeAll by size, each against `rm -rf` of an identical tree on the same (memory-backed when
// possible) file system in the same run; the ratios staying level from size to size is what
// shows the cost to grow linearly:
// - trees of 1,000, 20,000 and 200,000 files, 100 to a directory;
// - run as uid 65534 (when started as root), flat directories of 1,000, 20,000 and 200,000
//   files that all stay, because the caller may not write there: every failure is met, the
//   first one remembered, and the walk must not slow down with their number.
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

constexpr int kFilesPerDirectory = 100;
constexpr int kSizes[] = {1000, 20000, 200000};
constexpr uid_t kUnprivileged = 65534;

std::string scratchBase() {
    if (access("/dev/shm", W_OK) == 0) return "/dev/shm";
    const char *tmp = getenv("TMPDIR");
    return tmp != nullptr ? tmp : "/tmp";
}

// `files` empty files, `perDirectory` to each directory below a new top directory.
std::string buildTree(int files, int perDirectory) {
    std::string root = scratchBase() + "/telo-rm-bench.XXXXXX";
    if (mkdtemp(&root[0]) == nullptr || chmod(root.c_str(), 0755) != 0) abort();
    for (int d = 0; d * perDirectory < files; ++d) {
        std::string dir = root + "/dir" + std::to_string(d);
        if (mkdir(dir.c_str(), 0755) != 0) abort();
        for (int f = 0; f < perDirectory && d * perDirectory + f < files; ++f) {
            std::string file = dir + "/file-with-a-name-" + std::to_string(f);
            int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) abort();
            close(fd);
        }
    }
    return root;
}

// Runs `rm -rf root`, as `uid` unless it is ours; its exit status is 0 only when all is gone.
bool runRm(const std::string &root, uid_t uid) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null < 0 || dup2(null, 2) < 0) _exit(127);
        if (uid != geteuid() && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(127);
        execl("/bin/rm", "rm", "-rf", root.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

template <typename Remove>
void timeRemoval(benchmark::State &state, Remove remove) {
    int files = static_cast<int>(state.range(0));
    for (auto _ : state) {
        std::string root = buildTree(files, kFilesPerDirectory);
        auto start = std::chrono::steady_clock::now();
        bool ok = remove(root);
        auto end = std::chrono::steady_clock::now();
        if (!ok || access(root.c_str(), F_OK) == 0) {
            state.SkipWithError("tree not removed");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    state.SetItemsProcessed(state.iterations() * files);
}

void BM_RemoveAll(benchmark::State &state) {
    timeRemoval(state, [](const std::string &root) { return TELO::Backup::removeAll(root); });
}

void BM_RmRf(benchmark::State &state) {
    timeRemoval(state, [](const std::string &root) { return runRm(root, geteuid()); });
}

// The seconds `remove` takes in a child running as kUnprivileged, or a negative value.
template <typename Remove>
double timeUnprivileged(Remove remove) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(kUnprivileged) != 0 || setuid(kUnprivileged) != 0) _exit(1);
        auto start = std::chrono::steady_clock::now();
        remove();
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        _exit(write(pipeFds[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? 0 : 1);
    }
    close(pipeFds[1]);
    double seconds = -1;
    if (pid < 0 || read(pipeFds[0], &seconds, sizeof(seconds)) != sizeof(seconds)) seconds = -1;
    close(pipeFds[0]);
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    return seconds;
}

// The same root-owned flat directory for every iteration: nothing in it is ever removed.
template <typename Remove>
void timeFailedRemoval(benchmark::State &state, Remove remove) {
    int files = static_cast<int>(state.range(0));
    if (geteuid() != 0) {
        state.SkipWithError("needs root to remove as another user");
        return;
    }
    std::string root = buildTree(files, files);
    for (auto _ : state) {
        double seconds = timeUnprivileged([&] { remove(root); });
        if (seconds < 0) {
            state.SkipWithError("the unprivileged removal did not report");
            break;
        }
        state.SetIterationTime(seconds);
    }
    runRm(root, geteuid());
    state.SetItemsProcessed(state.iterations() * files);
}

void BM_RemoveAllRefused(benchmark::State &state) {
    timeFailedRemoval(state, [](const std::string &root) {
        // Fails by design: the first failure is reported and the walk goes on.
        if (TELO::Backup::removeAll(root)) abort();
    });
}

void BM_RmRfRefused(benchmark::State &state) {
    timeFailedRemoval(state, [](const std::string &root) { runRm(root, geteuid()); });
}

// Fewer iterations for the largest trees, each of which takes seconds to build.
void bySize(benchmark::internal::Benchmark *b) {
    b->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(5)
        ->ReportAggregatesOnly()
        ->ComputeStatistics("min", telobench::minimumOf);
}

void registerBySize(const char *name, void (*fn)(benchmark::State &)) {
    for (int files : kSizes) {
        benchmark::RegisterBenchmark(name, fn)
            ->Arg(files)
            ->Iterations(files >= 200000  ? 1
                         : files >= 20000 ? 2
                                          : 10)
            ->Apply(bySize);
    }
}

// One ratio row per size (`target` from 20,000 files on, where starting rm no longer
// dominates), then the growth of the measured case's own time.
void table(telobench::RatioReporter &reporter, const std::string &label,
           const std::string &measured, const std::string &baseline, double target) {
    for (int files : kSizes) {
        std::string arg = "/" + std::to_string(files) + "/";
        reporter.ratio(label + ", " + std::to_string(files) + " files", measured + arg,
                       baseline + arg, files >= 20000 ? target : 0);
    }
    std::string first = "/" + std::to_string(kSizes[0]) + "/";
    std::string last = "/" + std::to_string(kSizes[2]) + "/";
    reporter.ratio(label + ": time at " + std::to_string(kSizes[2]) + " / at " +
                       std::to_string(kSizes[0]) + " files",
                   measured + last, measured + first, 0);
}

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    std::cout << "scratch file system: " << scratchBase() << std::endl;
    registerBySize("BM_RmRf", BM_RmRf);
    registerBySize("BM_RemoveAll", BM_RemoveAll);
    registerBySize("BM_RmRfRefused", BM_RmRfRefused);
    registerBySize("BM_RemoveAllRefused", BM_RemoveAllRefused);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("removeAll / rm -rf of the same tree (100 files to a directory)");
    table(reporter, "removeAll", "BM_RemoveAll", "BM_RmRf", 1.15);
    reporter.heading("unprivileged removeAll / rm -rf of a flat directory whose files all stay");
    table(reporter, "removeAll refused", "BM_RemoveAllRefused", "BM_RmRfRefused", 0);
    return 0;
}
