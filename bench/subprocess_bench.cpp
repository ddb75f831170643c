// Launch cost of SubProcess against posix_spawn + waitpid of the same program, from a parent
// whose resident memory is about 10 MB, 1 GB and 4 GB (touched, in small pages, as a daemon's
// heap would be), on the default path and on the plain-fork path; and the round trip of a
// one-line conversation, with the child's end waited for on a pidfd and with naps. Needs about
// 4.1 GB of free memory.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "proc/exit_wait.h"
#include "proc/launch.h"
#include "support/ratio_reporter.h"
#include "telobackup/proc/subprocess.h"

extern char **environ;

using TELO::Backup::PipeFile;
using TELO::Backup::SubProcess;

namespace {

constexpr char kTrue[] = "/bin/true";
constexpr char kCat[] = "/bin/cat";

long residentMegabytes() {
    long pages = 0, resident = 0;
    FILE *statm = fopen("/proc/self/statm", "re");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(statm);
    }
    return resident * sysconf(_SC_PAGESIZE) / (1024 * 1024);
}

// Memory that makes the process about `megabytes` resident.
class Ballast {
  public:
    void resize(long megabytes) {
        if (megabytes == target_) return;
        release();
        target_ = megabytes;
        long missing = megabytes - residentMegabytes();
        if (missing <= 0) return;
        size_ = static_cast<size_t>(missing) * 1024 * 1024;
        void *p = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) {
            size_ = 0;
            return;
        }
        madvise(p, size_, MADV_NOHUGEPAGE);
        memset(p, 1, size_);
        memory_ = p;
    }
    ~Ballast() { release(); }

  private:
    void release() {
        if (memory_ != nullptr) munmap(memory_, size_);
        memory_ = nullptr;
        size_ = 0;
    }
    void *memory_ = nullptr;
    size_t size_ = 0;
    long target_ = -1;
};

Ballast ballast;

void prepare(benchmark::State &state) {
    ballast.resize(state.range(0));
    state.counters["rss_MB"] = static_cast<double>(residentMegabytes());
}

void BM_PosixSpawn(benchmark::State &state) {
    prepare(state);
    char *argv[] = {const_cast<char *>(kTrue), nullptr};
    for (auto _ : state) {
        pid_t pid;
        int status = -1;
        if (posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
    }
}

void callTrue(benchmark::State &state, bool forkOnly) {
    prepare(state);
    TELO::Backup::internal::setForkOnly(forkOnly);
    SubProcess sp(kTrue);
    for (auto _ : state) {
        if (sp.call() != 0) {
            state.SkipWithError("call failed");
            break;
        }
    }
    TELO::Backup::internal::setForkOnly(false);
}

void BM_Call(benchmark::State &state) {
    callTrue(state, false);
}

void BM_CallForkPath(benchmark::State &state) {
    callTrue(state, true);
}

void pipeRoundTrip(benchmark::State &state, bool naps) {
    prepare(state);
    TELO::Backup::internal::setExitWaitByNaps(naps);
    SubProcess sp(kCat);
    for (auto _ : state) {
        PipeFile *pipe = nullptr;
        int pid = sp.callPipeOpen(&pipe);
        char line[6] = {};
        bool ok = pid > 0 && SubProcess::writePipe("ping\n", 1, 5, pipe) == 5 &&
                  SubProcess::readPipe(line, 1, 5, pipe) == 5;
        if (SubProcess::callPipeClose(pipe, pid) != 0 || !ok) {
            state.SkipWithError("pipe conversation failed");
            break;
        }
    }
    TELO::Backup::internal::setExitWaitByNaps(false);
}

void BM_PipeRoundTrip(benchmark::State &state) {
    pipeRoundTrip(state, false);
}

// As where the kernel has no pidfds.
void BM_PipeRoundTripNaps(benchmark::State &state) {
    pipeRoundTrip(state, true);
}

// The same conversation on posix_spawn and a blocking waitpid.
void BM_PipeSpawn(benchmark::State &state) {
    prepare(state);
    char *argv[] = {const_cast<char *>(kCat), nullptr};
    for (auto _ : state) {
        int sv[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, sv[1], 0);
        posix_spawn_file_actions_adddup2(&actions, sv[1], 1);
        pid_t pid;
        int status = -1;
        char line[6] = {};
        bool ok = posix_spawn(&pid, kCat, &actions, nullptr, argv, environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        close(sv[1]);
        ok = ok && write(sv[0], "ping\n", 5) == 5 && read(sv[0], line, 5) == 5;
        close(sv[0]);
        if (!ok || waitpid(pid, &status, 0) != pid || status != 0) {
            state.SkipWithError("spawned conversation failed");
            break;
        }
    }
}

#define LAUNCH_CASE(fn, megabytes)                                                   \
    BENCHMARK(fn)->Arg(megabytes)->UseRealTime()->Repetitions(9)->ComputeStatistics( \
        "min", telobench::minimumOf)

LAUNCH_CASE(BM_PosixSpawn, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_Call, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_CallForkPath, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_PipeSpawn, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_PipeRoundTrip, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_PipeRoundTripNaps, 10)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_PosixSpawn, 1024)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_Call, 1024)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_CallForkPath, 1024)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_PosixSpawn, 4096)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_Call, 4096)->MinTime(0.3)->ReportAggregatesOnly();
LAUNCH_CASE(BM_CallForkPath, 4096)->MinTime(0.3)->ReportAggregatesOnly();

}  // namespace

int main(int argc, char **argv) {
    if (access(kTrue, X_OK) != 0 || access(kCat, X_OK) != 0) {
        fprintf(stderr, "needs %s and %s\n", kTrue, kCat);
        return 1;
    }
    // A child ignoring end of file would otherwise kill us when written to.
    signal(SIGPIPE, SIG_IGN);
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    // One parent size at a time: growing and shrinking gigabytes between cases would dominate.
    benchmark::RunSpecifiedBenchmarks(&reporter, "/10/");
    benchmark::RunSpecifiedBenchmarks(&reporter, "/1024/");
    benchmark::RunSpecifiedBenchmarks(&reporter, "/4096/");
    reporter.heading("SubProcess::call() of /bin/true / posix_spawn + waitpid (minimum of 9)");
    reporter.ratio("10 MB parent", "BM_Call/10/", "BM_PosixSpawn/10/", 1.5);
    reporter.ratio("1 GB parent (stretch)", "BM_Call/1024/", "BM_PosixSpawn/1024/", 2.0);
    reporter.ratio("4 GB parent", "BM_Call/4096/", "BM_PosixSpawn/4096/", 0);
    reporter.ratio("plain fork path, 10 MB", "BM_CallForkPath/10/", "BM_PosixSpawn/10/", 0);
    reporter.ratio("plain fork path, 1 GB", "BM_CallForkPath/1024/", "BM_PosixSpawn/1024/", 0);
    reporter.ratio("plain fork path, 4 GB", "BM_CallForkPath/4096/", "BM_PosixSpawn/4096/", 0);
    reporter.heading("growth with the parent's size: the same call / its 10 MB time");
    reporter.ratio("call(), 1 GB / 10 MB", "BM_Call/1024/", "BM_Call/10/", 0);
    reporter.ratio("call(), 4 GB / 10 MB", "BM_Call/4096/", "BM_Call/10/", 0);
    reporter.ratio("posix_spawn, 1 GB / 10 MB", "BM_PosixSpawn/1024/", "BM_PosixSpawn/10/", 0);
    reporter.ratio("posix_spawn, 4 GB / 10 MB", "BM_PosixSpawn/4096/", "BM_PosixSpawn/10/", 0);
    reporter.ratio("plain fork path, 4 GB / 1 GB", "BM_CallForkPath/4096/", "BM_CallForkPath/1024/",
                   0);
    reporter.heading(
        "callPipeOpen + one-line echo + callPipeClose / socketpair + posix_spawn + "
        "write/read + close + waitpid");
    reporter.ratio("pipe round trip, pidfd wait", "BM_PipeRoundTrip/10/", "BM_PipeSpawn/10/", 1.5);
    reporter.ratio("pipe round trip, naps (no pidfds)", "BM_PipeRoundTripNaps/10/",
                   "BM_PipeSpawn/10/", 0);
    return 0;
}
