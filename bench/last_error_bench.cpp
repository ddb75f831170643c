// What keeping the thread's last error line costs a failing call: the library's line writer
// against the plain syslog call the log macros made before, and a whole failing call.
#include <syslog.h>
#include <unistd.h>

#include "internal/syslog.h"
#include "support/ratio_reporter.h"
#include "telobackup/option_map.h"

namespace {

constexpr char kFormat[] = "(%d) [err] %s:%d invalid sec [%s][%s]";

void BM_PlainSyslog(benchmark::State &state) {
    for (auto _ : state) ::syslog(LOG_ERR, kFormat, ::getpid(), "option_map", 412, "", "task");
}

void BM_RecordingLine(benchmark::State &state) {
    for (auto _ : state) {
        TELO::Backup::internal::logLine(LOG_ERR, kFormat, ::getpid(), "option_map", 412, "",
                                        "task");
    }
}

// A failing call that logs one line: a load without a file.
void BM_FailingLoad(benchmark::State &state) {
    TELO::Backup::OptionMap map;
    for (auto _ : state) benchmark::DoNotOptimize(map.optSectionLoad("", "task", -1));
}

BENCHMARK(BM_PlainSyslog)
    ->Repetitions(15)
    ->MinTime(0.05)
    ->ComputeStatistics("min", telobench::minimumOf)
    ->ReportAggregatesOnly();
BENCHMARK(BM_RecordingLine)
    ->Repetitions(15)
    ->MinTime(0.05)
    ->ComputeStatistics("min", telobench::minimumOf)
    ->ReportAggregatesOnly();
BENCHMARK(BM_FailingLoad)
    ->Repetitions(15)
    ->MinTime(0.05)
    ->ComputeStatistics("min", telobench::minimumOf)
    ->ReportAggregatesOnly();

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    // The lines go to the host's logger like any program's (none listening is a cost too).
    telobench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("error line with the thread's record / plain syslog, time per line");
    reporter.ratio("recording line", "BM_RecordingLine", "BM_PlainSyslog", 1.1);
    reporter.ratio("failing load (one line)", "BM_FailingLoad", "BM_PlainSyslog", 0);
    return 0;
}
