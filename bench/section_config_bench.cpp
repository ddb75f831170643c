// Section config scanning and rewriting against baselines from the same run:
// - listSection and loadSection of the middle section against a full inih parse of the same
//   file (10, 1,000 and 50,000 sections of 8 keys);
// - updateSection of one section (with its syncs) against copying the file to a temporary
//   beside it, fsync, rename and fsync of the directory (2 KB and 2 MB files).
#include <fcntl.h>
#include <ini.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <list>
#include <string>

#include "support/ratio_reporter.h"
#include "telobackup/section_config.h"

using TELO::Backup::SectionConfig;

namespace {

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

std::string sectionName(int index) {
    char name[32];
    snprintf(name, sizeof(name), "task%06d", index);
    return name;
}

// A file of `sections` sections of 8 keys each, about 400 bytes a section.
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

const std::string &scanFile(int sections) {
    static std::string files[3];
    int slot = sections <= 10 ? 0 : sections <= 1000 ? 1 : 2;
    if (files[slot].empty()) files[slot] = makeFile("scan" + std::to_string(sections), sections);
    return files[slot];
}

void BM_ListSection(benchmark::State &state) {
    const std::string &file = scanFile(static_cast<int>(state.range(0)));
    std::list<std::string> names;
    for (auto _ : state) {
        if (!SectionConfig::listSection(file, names)) state.SkipWithError("list failed");
    }
}

void BM_LoadMiddleSection(benchmark::State &state) {
    int sections = static_cast<int>(state.range(0));
    const std::string &file = scanFile(sections);
    std::string middle = sectionName(sections / 2);
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
    const std::string &file = scanFile(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        long keys = 0;
        if (ini_parse(file.c_str(), countKey, &keys) != 0) state.SkipWithError("inih failed");
        benchmark::DoNotOptimize(keys);
    }
}

// ---- Rewrites ---------------------------------------------------------------------------------

const std::string &rewriteFile(int bytes) {
    static std::string small, large;
    std::string &slot = bytes < 100000 ? small : large;
    if (slot.empty()) slot = makeFile("rewrite" + std::to_string(bytes), bytes / 400);
    return slot;
}

void BM_UpdateSection(benchmark::State &state) {
    int bytes = static_cast<int>(state.range(0));
    const std::string &file = rewriteFile(bytes);
    std::string middle = sectionName(bytes / 800);
    Json::Value values;
    for (int k = 0; k < 8; ++k)
        values["option_" + std::to_string(k)] = "updated value " + std::to_string(k);
    for (auto _ : state) {
        if (!SectionConfig::updateSection(file, middle, values, false)) {
            state.SkipWithError("update failed");
        }
    }
}

// The least any durable rewrite must do: copy beside, fsync, rename, fsync the directory.
void BM_CopyRenameFloor(benchmark::State &state) {
    const std::string &file = rewriteFile(static_cast<int>(state.range(0)));
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

BENCHMARK(BM_ListSection)->Arg(10)->Arg(1000)->Arg(50000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BM_LoadMiddleSection)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(50000)
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(BM_InihParse)->Arg(10)->Arg(1000)->Arg(50000)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(BM_UpdateSection)
    ->Arg(2048)
    ->Arg(2 << 20)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyRenameFloor)
    ->Arg(2048)
    ->Arg(2 << 20)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    std::cout << "scratch directory: " << scratchDir() << std::endl;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.heading("scanning / full inih parse of the same file (targets 1/3 and 1/8)");
    for (const char *size : {"10", "1000", "50000"}) {
        std::string suffix = std::string("/") + size + "/";
        reporter.ratio(std::string("listSection, sections ") + size, "BM_ListSection" + suffix,
                       "BM_InihParse" + suffix, 1.0 / 3);
        reporter.ratio(std::string("loadSection middle, sections ") + size,
                       "BM_LoadMiddleSection" + suffix, "BM_InihParse" + suffix, 1.0 / 8);
    }
    reporter.heading("updateSection / copy + fsync + rename + fsync dir");
    reporter.ratio("updateSection, 2 KB", "BM_UpdateSection/2048/", "BM_CopyRenameFloor/2048/",
                   1.2);
    reporter.ratio("updateSection, 2 MB", "BM_UpdateSection/2097152/",
                   "BM_CopyRenameFloor/2097152/", 1.2);
    std::string cleanup = scratchDir();
    for (const char *name : {"scan10", "scan1000", "scan50000", "rewrite2048", "rewrite2097152"}) {
        unlink((cleanup + "/" + name).c_str());
    }
    rmdir(cleanup.c_str());
    return 0;
}
