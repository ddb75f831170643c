// `telobackup-util config dump` against `telobackup-util config sections` of the same file, both
// run as processes with standard output on /dev/null, for 10, 1,000, 10,000 and 100,000
// sections of 8 keys (strings, a number, a boolean and an array): the dump reads the file once,
// so it must stay within a small factor of merely listing the names at every size. The last
// rows give each command's own growth from 10,000 to 100,000 sections (10x is linear; below
// that, starting the process still counts).
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "support/ratio_reporter.h"

extern char **environ;

namespace {

std::string scratchDir() {
    static const std::string dir = [] {
        const char *tmp = getenv("TMPDIR");
        std::string path =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/telo-dump-bench.XXXXXX";
        if (mkdtemp(&path[0]) == nullptr) abort();
        return path;
    }();
    return dir;
}

std::string fileOf(int sections) {
    return scratchDir() + "/tasks" + std::to_string(sections) + ".conf";
}

void makeFile(int sections) {
    FILE *f = fopen(fileOf(sections).c_str(), "we");
    if (f == nullptr) abort();
    for (int s = 0; s < sections; ++s) {
        fprintf(f, "[task%d]\n", s + 1);
        fprintf(f, "name=\"nightly backup %d\"\nsource=\"/srv/photos/%d\"\n", s, s);
        fprintf(f, "target=\"rsync://backup.example.org/module%d\"\n", s % 7);
        fprintf(f, "schedule=\"0 3 * * *\"\nnote=\"kept for 14 days, then thinned\"\n");
        fprintf(f, "keep=%d\nenabled=true\nexclude=[\"/**/*.tmp\",\"/**/@eaDir/**\"]\n", s % 30);
    }
    if (fclose(f) != 0) abort();
}

// Runs the tool with `args` and standard output on /dev/null; false unless it exits 0.
bool runTool(const std::vector<std::string> &args) {
    std::vector<char *> argv;
    std::string tool = TELO_TOOL_PATH;
    argv.push_back(&tool[0]);
    std::vector<std::string> copies = args;
    for (std::string &arg : copies) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int failed = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return false;
    int status;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_ConfigSections(benchmark::State &state) {
    std::string file = fileOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        if (!runTool({"config", "sections", file})) state.SkipWithError("config sections failed");
    }
}

void BM_ConfigDump(benchmark::State &state) {
    std::string file = fileOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        if (!runTool({"config", "dump", file})) state.SkipWithError("config dump failed");
    }
}

constexpr int kSizes[] = {10, 1000, 10000, 100000};

void withMinimum(benchmark::internal::Benchmark *b) {
    for (int sections : kSizes) b->Arg(sections);
    b->Iterations(2)->Repetitions(5)->ReportAggregatesOnly()->Unit(benchmark::kMillisecond);
    b->ComputeStatistics("min", telobench::minimumOf);
}

BENCHMARK(BM_ConfigSections)->Apply(withMinimum);
BENCHMARK(BM_ConfigDump)->Apply(withMinimum);

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    for (int sections : kSizes) makeFile(sections);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("config dump / config sections of the same file (target <= 10x)");
    for (int sections : kSizes) {
        std::string suffix = "/" + std::to_string(sections) + "/";
        reporter.ratio("config dump, " + std::to_string(sections) + " sections",
                       "BM_ConfigDump" + suffix, "BM_ConfigSections" + suffix, 10);
    }
    reporter.heading("time at 100000 sections / at 10000");
    reporter.ratio("config dump", "BM_ConfigDump/100000/", "BM_ConfigDump/10000/", 0);
    reporter.ratio("config sections", "BM_ConfigSections/100000/", "BM_ConfigSections/10000/", 0);
    for (int sections : kSizes) unlink(fileOf(sections).c_str());
    rmdir(scratchDir().c_str());
    return reporter.misses() == 0 ? 0 : 1;
}
