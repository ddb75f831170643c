// filelog against a raw write + fdatasync loop appending lines of the same length to the same
// file (on a disk-backed file system, where the sync is real work).
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "support/ratio_reporter.h"
#include "telobackup/log.h"

namespace {

std::string logPath;
const std::string kMessage = "backup task 17: stage 3 of 9 finished, 18234 files, 2.1 GiB";

void BM_RawWriteSync(benchmark::State &state) {
    int fd = open(logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    // Same bytes as a filelog line: a 20-byte timestamp prefix, the message and a newline.
    std::string line = "2026-01-01T00:00:00 " + kMessage + "\n";
    for (auto _ : state) {
        if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) abort();
        fdatasync(fd);
    }
    close(fd);
}

void BM_Filelog(benchmark::State &state) {
    for (auto _ : state) filelog(6, "%s", kMessage.c_str());
}

BENCHMARK(BM_RawWriteSync)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.3)
    ->Repetitions(7)
    ->ReportAggregatesOnly();
BENCHMARK(BM_Filelog)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.3)
    ->Repetitions(7)
    ->ReportAggregatesOnly();

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    const char *tmp = getenv("TELO_BENCH_DIR");
    std::string dir = tmp != nullptr ? tmp : "/var/tmp";
    logPath = dir + "/telo-filelog-bench.log";
    unlink(logPath.c_str());
    setenv("TELO_LOGFILE", logPath.c_str(), 1);
    std::cout << "log file: " << logPath << std::endl;
    telobench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("filelog / raw write + fdatasync, time per line");
    reporter.ratio("filelog", "BM_Filelog", "BM_RawWriteSync", 1.1);
    unlink(logPath.c_str());
    return 0;
}
