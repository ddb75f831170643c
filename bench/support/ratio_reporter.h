// Console output of Google Benchmark plus the ratios of each measured case to its baseline
// from the same run.
#ifndef TELO_BENCH_SUPPORT_RATIO_REPORTER_H
#define TELO_BENCH_SUPPORT_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace telobench {

// benchmark::Initialize with the repetitions of all cases interleaved in random order, so that
// drift of the machine's speed during the run spreads over a case and its baseline alike.
inline void initialize(int *argc, char **argv) {
    static std::vector<char *> args;
    static char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.assign(argv, argv + *argc);
    args.insert(args.begin() + 1, interleave);
    args.push_back(nullptr);
    int count = *argc + 1;
    benchmark::Initialize(&count, args.data());
}

// Adds the minimum over repetitions to a case's statistics; the reporter then compares minima.
inline double minimumOf(const std::vector<double> &values) {
    double best = values.empty() ? 0 : values[0];
    for (double v : values) best = v < best ? v : best;
    return best;
}

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    // With repetitions the minimum is kept when the case computes one (the best estimate of a
    // short operation's own cost on a busy machine), else the median; without, the single run.
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min") {
                times_[run.run_name.str()] = run.GetAdjustedRealTime();
                medians_.insert(run.run_name.str());
                mins_.insert(run.run_name.str());
            } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" &&
                       mins_.count(run.run_name.str()) == 0) {
                times_[run.run_name.str()] = run.GetAdjustedRealTime();
                medians_.insert(run.run_name.str());
            } else if (run.run_type == Run::RT_Iteration && run.iterations > 0 &&
                       medians_.count(run.run_name.str()) == 0) {
                times_[run.run_name.str()] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Time per iteration of the first run whose name starts with `prefix`, or a negative value.
    double timeOf(const std::string &prefix) const {
        for (const auto &entry : times_) {
            if (entry.first.compare(0, prefix.size(), prefix) == 0) return entry.second;
        }
        return -1;
    }

    // Prints "label: measured / baseline = ratio (target <= target)" and remembers a miss.
    void ratio(const std::string &label, const std::string &measured, const std::string &baseline,
               double target) {
        double m = timeOf(measured), b = timeOf(baseline);
        std::ostream &out = GetOutputStream();
        char line[256];
        if (m < 0 || b <= 0) {
            snprintf(line, sizeof(line), "%-44s not measured\n", label.c_str());
            out << line << std::flush;
            return;
        }
        double r = m / b;
        bool met = target <= 0 || r <= target;
        if (!met) ++misses_;
        if (target > 0) {
            snprintf(line, sizeof(line), "%-44s %10.1f / %10.1f = %6.2fx  (target <= %.2fx) %s\n",
                     label.c_str(), m, b, r, target, met ? "met" : "MISSED");
        } else {
            snprintf(line, sizeof(line), "%-44s %10.1f / %10.1f = %6.2fx\n", label.c_str(), m, b,
                     r);
        }
        out << line << std::flush;
    }

    // Prints a heading line between the benchmark table and the ratios.
    void heading(const std::string &text) {
        GetOutputStream() << "\n" << text << "\n" << std::flush;
    }

    int misses() const { return misses_; }

  private:
    std::map<std::string, double> times_;
    std::set<std::string> medians_;
    std::set<std::string> mins_;
    int misses_ = 0;
};

}  // namespace telobench

#endif
