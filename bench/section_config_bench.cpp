// Section config scanning and rewriting by file size (10, 1,000, 10,000 and 100,000 sections of
// 8 keys, about 400 bytes a section), each against a baseline on the same file in the same run:
// - listSection and loadSection of the middle section against a full inih parse;
// - updateSection of the middle section (with its syncs), and optSectionCreateIncreaseId (two
//   scans, an appended header and the counter saved by a rewrite, under a lock token), against
//   copying the file to a temporary beside it, fsync, rename and fsync of the directory.
// The ratios staying level from size to size is what shows the cost to grow linearly.
#include <fcntl.h>
#include <ini.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <string>

#include "support/ratio_reporter.h"
#include "telobackup/option_map.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"

using TELO::Backup::OptionMap;
using TELO::Backup::Path;
using TELO::Backup::SectionConfig;

namespace {

constexpr int kSizes[] = {10, 1000, 10000, 100000};

std::string scratchDir() {
    static const std::string dir = [] {
        const char *tmp = getenv("TMPDIR");
        std::string path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                           "/telo-section-bench.XXXXXX";
        if (mkdtemp(&path[0]) == nullptr) abort();
        return path;
    }();
    return dir;
}

const std::string &lockToken() {
    static const std::string token = "bench-sections-" + std::to_string(getpid());
    return token;
}

std::string sectionName(int index) {
    char name[32];
    snprintf(name, sizeof(name), "task%06d", index);
    return name;
}

// A file of `sections` sections of 8 keys each.
std::string makeFile(const std::string &name, int sections) {
    std::string path = scratchDir() + "/" + name;
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) abort();
    for (int s = 0; s < sections; ++s) {
        fprintf(f, "[%s]\n", sectionName(s).c_str());
        for (int k = 0; k < 8; ++k) {
            fprintf(f, "option_%d=\"value %d of section %d, some text here\"\n", k, k, s);
        }
    }
    fclose(f);
    return path;
}

// One file per size only read, one rewritten.
const std::string &fileOf(const char *use, int sections) {
    static std::map<std::string, std::string> files;
    std::string name = use + std::to_string(sections);
    std::string &path = files[name];
    if (path.empty()) path = makeFile(name, sections);
    return path;
}

int sectionsOf(const benchmark::State &state) {
    return static_cast<int>(state.range(0));
}

void BM_ListSection(benchmark::State &state) {
    const std::string &file = fileOf("scan", sectionsOf(state));
    std::list<std::string> names;
    for (auto _ : state) {
        if (!SectionConfig::listSection(file, names)) state.SkipWithError("list failed");
    }
}

void BM_LoadMiddleSection(benchmark::State &state) {
    const std::string &file = fileOf("scan", sectionsOf(state));
    std::string middle = sectionName(sectionsOf(state) / 2);
    Json::Value values;
    for (auto _ : state) {
        if (!SectionConfig::loadSection(file, middle, values) || values.size() != 8) {
            state.SkipWithError("load failed");
        }
    }
}

int countKey(void *user, const char *, const char *, const char *) {
    ++*static_cast<long *>(user);
    return 1;
}

void BM_InihParse(benchmark::State &state) {
    const std::string &file = fileOf("scan", sectionsOf(state));
    for (auto _ : state) {
        long keys = 0;
        if (ini_parse(file.c_str(), countKey, &keys) != 0) state.SkipWithError("inih failed");
        benchmark::DoNotOptimize(keys);
    }
}

// ---- Rewrites ---------------------------------------------------------------------------------

void BM_UpdateSection(benchmark::State &state) {
    const std::string &file = fileOf("rewrite", sectionsOf(state));
    std::string middle = sectionName(sectionsOf(state) / 2);
    Json::Value values;
    for (int k = 0; k < 8; ++k)
        values["option_" + std::to_string(k)] = "updated value " + std::to_string(k);
    for (auto _ : state) {
        if (!SectionConfig::updateSection(file, middle, values, false)) {
            state.SkipWithError("update failed");
        }
    }
}

// Each allocation adds one empty section to the file, a negligible growth.
void BM_CreateIncreaseId(benchmark::State &state) {
    const std::string &file = fileOf("rewrite", sectionsOf(state));
    for (auto _ : state) {
        OptionMap map;
        if (!map.setLockToken(lockToken()) || !map.optSectionCreateIncreaseId(file, "job")) {
            state.SkipWithError("allocation failed");
        }
    }
}

// The least any durable rewrite must do: copy beside, fsync, rename, fsync the directory.
void BM_CopyRenameFloor(benchmark::State &state) {
    const std::string &file = fileOf("rewrite", sectionsOf(state));
    std::string temp = file + ".floor";
    std::string dir = file.substr(0, file.rfind('/'));
    static char buffer[64 * 1024];
    for (auto _ : state) {
        int in = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        int out = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ssize_t n;
        while ((n = read(in, buffer, sizeof(buffer))) > 0) {
            if (write(out, buffer, static_cast<size_t>(n)) != n) state.SkipWithError("write");
        }
        if (fsync(out) != 0 || close(out) != 0 || close(in) != 0 ||
            rename(temp.c_str(), file.c_str()) != 0) {
            state.SkipWithError("copy failed");
        }
        int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        fsync(dirFd);
        close(dirFd);
    }
}

void bySize(benchmark::internal::Benchmark *b) {
    for (int sections : kSizes) b->Arg(sections);
    b->Repetitions(5)
        ->ReportAggregatesOnly()
        ->ComputeStatistics("min", telobench::minimumOf)
        ->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_ListSection)->Apply(bySize);
BENCHMARK(BM_LoadMiddleSection)->Apply(bySize);
BENCHMARK(BM_InihParse)->Apply(bySize);
BENCHMARK(BM_UpdateSection)->Apply(bySize);
BENCHMARK(BM_CreateIncreaseId)->Apply(bySize);
BENCHMARK(BM_CopyRenameFloor)->Apply(bySize);

// One ratio row per size, then the growth of the measured case's own time.
void table(telobench::RatioReporter &reporter, const std::string &label,
           const std::string &measured, const std::string &baseline, double target) {
    for (int sections : kSizes) {
        std::string arg = "/" + std::to_string(sections) + "/";
        reporter.ratio(label + ", " + std::to_string(sections) + " sections", measured + arg,
                       baseline + arg, target);
    }
    std::string first = "/" + std::to_string(kSizes[0]) + "/";
    std::string last = "/" + std::to_string(kSizes[3]) + "/";
    reporter.ratio(
        label + ": time at " + std::to_string(kSizes[3]) + " / at " + std::to_string(kSizes[0]),
        measured + last, measured + first, 0);
}

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    std::cout << "scratch directory: " << scratchDir() << std::endl;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("scanning / full inih parse of the same file (targets 1/3 and 1/8)");
    table(reporter, "listSection", "BM_ListSection", "BM_InihParse", 1.0 / 3);
    table(reporter, "loadSection middle", "BM_LoadMiddleSection", "BM_InihParse", 1.0 / 8);
    reporter.heading("rewrites / copy + fsync + rename + fsync dir of the same file");
    table(reporter, "updateSection", "BM_UpdateSection", "BM_CopyRenameFloor", 1.2);
    table(reporter, "optSectionCreateIncreaseId", "BM_CreateIncreaseId", "BM_CopyRenameFloor", 0);
    reporter.heading("the baselines: time at " + std::to_string(kSizes[3]) + " sections / at " +
                     std::to_string(kSizes[0]));
    reporter.ratio("inih parse", "BM_InihParse/100000/", "BM_InihParse/10/", 0);
    reporter.ratio("copy + fsync + rename", "BM_CopyRenameFloor/100000/", "BM_CopyRenameFloor/10/",
                   0);

    std::string dir = scratchDir();
    for (const char *use : {"scan", "rewrite"}) {
        for (int sections : kSizes) unlink((dir + "/" + use + std::to_string(sections)).c_str());
    }
    rmdir(dir.c_str());
    unlink(Path::join(Path::getIpcTempPath(), "lock", lockToken()).c_str());
    return 0;
}
