// stringf against its floor: one vsnprintf into a stack buffer turned into a std::string.
#include <cstdarg>
#include <cstdio>

#include "support/ratio_reporter.h"
#include "telobackup/stringf.h"

namespace {

std::string floorFormat(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string floorFormat(const char *format, ...) {
    char buffer[16384];
    va_list ap;
    va_start(ap, format);
    int length = vsnprintf(buffer, sizeof(buffer), format, ap);
    va_end(ap);
    return std::string(buffer, length < 0 ? 0 : static_cast<size_t>(length));
}

// A result of exactly `length` bytes from a short format with a number in it.
std::string argumentFor(int64_t length) {
    return std::string(static_cast<size_t>(length) - 6, 'p');
}

void BM_Stringf(benchmark::State &state) {
    std::string arg = argumentFor(state.range(0));
    for (auto _ : state) {
        std::string s = TELO::Backup::stringf("%s=%05d", arg.c_str(), 12345);
        benchmark::DoNotOptimize(s);
    }
}

void BM_Floor(benchmark::State &state) {
    std::string arg = argumentFor(state.range(0));
    for (auto _ : state) {
        std::string s = floorFormat("%s=%05d", arg.c_str(), 12345);
        benchmark::DoNotOptimize(s);
    }
}

BENCHMARK(BM_Floor)
    ->Arg(20)
    ->Arg(127)
    ->Arg(128)
    ->Arg(10000)
    ->Repetitions(15)
    ->MinTime(0.05)
    ->ComputeStatistics("min", telobench::minimumOf)
    ->ReportAggregatesOnly();
BENCHMARK(BM_Stringf)
    ->Arg(20)
    ->Arg(127)
    ->Arg(128)
    ->Arg(10000)
    ->Repetitions(15)
    ->MinTime(0.05)
    ->ComputeStatistics("min", telobench::minimumOf)
    ->ReportAggregatesOnly();

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("stringf / floor (one vsnprintf into a stack buffer)");
    reporter.ratio("20 bytes", "BM_Stringf/20", "BM_Floor/20", 1.1);
    reporter.ratio("127 bytes", "BM_Stringf/127", "BM_Floor/127", 1.1);
    reporter.ratio("128 bytes (two passes)", "BM_Stringf/128", "BM_Floor/128", 2.1);
    reporter.ratio("10000 bytes (two passes)", "BM_Stringf/10000", "BM_Floor/10000", 2.1);
    return 0;
}
