// PathFilter decisions over a backup-shaped corpus against two baselines measured in the same
// run: (a) the same rules over glibc fnmatch, (b) the library's own match() tried pattern by
// pattern. Then how a decision's cost grows with the number of patterns (the set made 10, 100
// and 1000 times as large) beside fnmatch, single decisions on 4 KiB paths for adversarial
// patterns, and rebase() of many single stars.
//
//   path_filter_bench [--corpus=FILE] [--patterns=FILE] [benchmark flags]
//
// Without --corpus the corpus is generated with gen_paths.py (1000000 paths, seed 42) from the
// bench/data of the source tree; --patterns defaults to its
// filter_patterns.txt (lines "KIND<TAB>PATTERN", KIND prior, include or exclude).
#include <fnmatch.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "path/path_filter_private.h"
#include "support/ratio_reporter.h"
#include "telobackup/path/path_filter.h"

#ifndef TELO_BENCH_DATA_DIR
#define TELO_BENCH_DATA_DIR "bench/data"
#endif

using TELO::Backup::PathFilter;
using TELO::Backup::PathFilterPrivate;

// Counts every allocation of the process, to show that a decision makes none, and the bytes
// held, to show the most a call holds at once. (GCC takes the replacement operators for the
// built-in ones and warns about free.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<long> allocations{0};
static std::atomic<size_t> heldBytes{0}, peakBytes{0};
void *operator new(size_t size) {
    ++allocations;
    void *p = malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw std::bad_alloc();
    size_t held = heldBytes += malloc_usable_size(p);
    if (held > peakBytes) peakBytes = held;
    return p;
}
void operator delete(void *p) noexcept {
    if (p != nullptr) heldBytes -= malloc_usable_size(p);
    free(p);
}
void operator delete(void *p, size_t) noexcept {
    if (p != nullptr) heldBytes -= malloc_usable_size(p);
    free(p);
}
#pragma GCC diagnostic pop

namespace {

constexpr size_t kChunk = 1000;  // paths per benchmark iteration

struct Lists {
    std::vector<std::string> prior, include, exclude;
};

// A pattern as an fnmatch call: a trailing "/**" becomes "/*" with FNM_LEADING_DIR; a pattern
// that still holds "**" gets its star runs collapsed and loses FNM_PATHNAME.
struct FnPattern {
    std::string text;
    int flags;
};

struct FnLists {
    std::vector<FnPattern> prior, include, exclude;
};

FnPattern toFnmatch(std::string pattern) {
    int flags = FNM_PATHNAME;
    if (pattern.size() >= 3 && pattern.compare(pattern.size() - 3, 3, "/**") == 0) {
        pattern.replace(pattern.size() - 3, 3, "/*");
        flags |= FNM_LEADING_DIR;
    }
    if (pattern.find("**") != std::string::npos) {
        std::string collapsed;
        for (char c : pattern) {
            if (c != '*' || collapsed.empty() || collapsed.back() != '*') collapsed += c;
        }
        pattern = collapsed;
        flags &= ~FNM_PATHNAME;
    }
    return {pattern, flags};
}

std::vector<std::string> corpus;
Lists lists;
FnLists fnLists;
PathFilter filter;

bool anyMatch(const std::vector<std::string> &patterns, const std::string &path) {
    for (const std::string &p : patterns) {
        if (PathFilterPrivate::match(p.c_str(), path.c_str()) == 1) return true;
    }
    return false;
}

bool anyFnmatch(const std::vector<FnPattern> &patterns, const std::string &path) {
    for (const FnPattern &p : patterns) {
        if (fnmatch(p.text.c_str(), path.c_str(), p.flags) == 0) return true;
    }
    return false;
}

// Decision rule 1 and 2 with a matcher over one list.
template <typename L, typename F>
bool rule1(const L &l, const std::string &path, F any) {
    if (any(l.prior, path) || any(l.include, path)) return false;
    return any(l.exclude, path);
}
template <typename L, typename F>
bool rule2(const L &l, const std::string &path, F any) {
    if (any(l.prior, path)) return false;
    if (any(l.exclude, path)) return true;
    return l.include.empty() || !any(l.include, path);
}

bool matchRule1(const std::string &p) {
    return rule1(lists, p, anyMatch);
}
bool matchRule2(const std::string &p) {
    return rule2(lists, p, anyMatch);
}
bool fnRule1(const std::string &p) {
    return rule1(fnLists, p, anyFnmatch);
}
bool fnRule2(const std::string &p) {
    return rule2(fnLists, p, anyFnmatch);
}
bool filterRule1(const std::string &p) {
    return filter.filterOut(p);
}
bool filterRule2(const std::string &p) {
    return filter.filterOutIncludeException(p);
}

// Each iteration decides the next kChunk paths in corpus order; a run covers the corpus once.
template <bool (*Decide)(const std::string &)>
void BM_Corpus(benchmark::State &state) {
    size_t next = 0, left = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kChunk; ++i) {
            left += Decide(corpus[next]);
            if (++next == corpus.size()) next = 0;
        }
    }
    benchmark::DoNotOptimize(left);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kChunk));
}

// ---- Growth with the number of patterns ---------------------------------------------------------

constexpr int kCopies[] = {1, 10, 100, 1000};
constexpr size_t kGrowthChunk = 100;  // paths per iteration

// Copy `copy` of a pattern: the number after its first literal word (before its first literal
// byte when that is no letter or digit), so it keeps its shape and last byte and rarely matches.
std::string variant(const std::string &pattern, int copy) {
    if (copy == 0) return pattern;
    size_t at = pattern.find_first_not_of("/*?\\");
    if (at == std::string::npos) return pattern + std::to_string(copy);
    while (at < pattern.size() && isalnum(static_cast<unsigned char>(pattern[at]))) ++at;
    return pattern.substr(0, at) + std::to_string(copy) + pattern.substr(at);
}

struct GrowthSet {
    PathFilter filter;
    FnLists fn;
    size_t patterns = 0;
};
std::map<int, std::unique_ptr<GrowthSet>> growthSets;  // by copies
std::vector<const std::string *> growthSample;         // the corpus in a fixed random order

bool growthRule1(const GrowthSet &set, const std::string &path) {
    return rule1(set.fn, path, anyFnmatch);
}

void buildGrowthSets() {
    for (int copies : kCopies) {
        auto set = std::make_unique<GrowthSet>();
        for (int copy = 0; copy < copies; ++copy) {
            for (const std::string &p : lists.prior) {
                set->filter.addPriorIncludePattern(variant(p, copy));
                set->fn.prior.push_back(toFnmatch(variant(p, copy)));
            }
            for (const std::string &p : lists.include) {
                set->filter.addIncludePattern(variant(p, copy));
                set->fn.include.push_back(toFnmatch(variant(p, copy)));
            }
            for (const std::string &p : lists.exclude) {
                set->filter.addExcludePattern(variant(p, copy));
                set->fn.exclude.push_back(toFnmatch(variant(p, copy)));
            }
        }
        set->patterns = set->fn.prior.size() + set->fn.include.size() + set->fn.exclude.size();
        growthSets[copies] = std::move(set);
    }
    for (const std::string &path : corpus) growthSample.push_back(&path);
    std::shuffle(growthSample.begin(), growthSample.end(), std::mt19937(42));
    // The library and fnmatch must decide alike (the fnmatch form of a pattern is close, not
    // exact: a few differences are expected, and the same at every size).
    for (int copies : kCopies) {
        GrowthSet &set = *growthSets[copies];
        size_t differ = 0, out = 0, checked = copies >= 1000 ? 1000 : 10000;
        for (size_t i = 0; i < checked; ++i) {
            bool library = set.filter.filterOut(*growthSample[i]);
            out += library;
            differ += library != growthRule1(set, *growthSample[i]);
        }
        printf(
            "%6zu patterns: %zu of the first %zu sample paths left out, %zu decided otherwise "
            "by fnmatch\n",
            set.patterns, out, checked, differ);
    }
}

template <bool kLibrary>
void BM_Growth(benchmark::State &state) {
    GrowthSet &set = *growthSets[static_cast<int>(state.range(0))];
    size_t next = 0, left = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kGrowthChunk; ++i) {
            const std::string &path = *growthSample[next];
            left += kLibrary ? set.filter.filterOut(path) : growthRule1(set, path);
            if (++next == growthSample.size()) next = 0;
        }
    }
    benchmark::DoNotOptimize(left);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kGrowthChunk));
}

void printGrowth(const telobench::RatioReporter &reporter) {
    printf("\n%8s %16s %16s %16s %14s %14s\n", "patterns", "filterOut ns", "fnmatch ns",
           "filterOut/fn", "filterOut x", "fnmatch x");
    double library0 = -1, fn0 = -1;
    for (int copies : kCopies) {
        std::string arg = "/" + std::to_string(copies) + "/";
        // Microseconds per chunk into nanoseconds per path.
        double library = reporter.timeOf("BM_GrowthLibrary" + arg) * 1000 / kGrowthChunk;
        double fn = reporter.timeOf("BM_GrowthFnmatch" + arg) * 1000 / kGrowthChunk;
        if (library0 < 0) library0 = library, fn0 = fn;
        printf("%8zu %16.1f %16.1f %15.3fx %13.1fx %13.1fx\n", growthSets[copies]->patterns,
               library, fn, library / fn, library / library0, fn / fn0);
    }
    printf(
        "(x: the time per path over that at %zu patterns; linear growth is %d x at the "
        "largest size)\n",
        growthSets[kCopies[0]]->patterns, kCopies[3] / kCopies[0]);
}

// Adversarial single decisions on 4 KiB paths.
struct Adversary {
    const char *pattern;
    std::string path;
};
std::vector<Adversary> adversaries;

std::string repeat(const std::string &unit, size_t size) {
    std::string out;
    while (out.size() + unit.size() <= size) out += unit;
    return out;
}

// Runs of "*" and "**" mixed with literals, against 4 KiB paths on which they fail late.
void buildAdversaries() {
    const std::string as = std::string(4096, 'a');
    const std::string as2 = std::string(4094, 'a') + "/b";
    const std::string dirs = repeat("aaaaaaa/", 4096);
    const std::string mixed = repeat("a*a/", 4095) + "b";
    const std::string slashes = repeat("/a", 4096);
    std::string stars, anyPieces, slashPieces;
    for (int i = 0; i < 100; ++i) stars += "a*";
    for (int i = 0; i < 70; ++i) anyPieces += "a?*", slashPieces += "/a*";
    static const std::string kLong[] = {
        "**" + stars + "b**",                  // 201 tokens, pieces placed one by one
        "**" + std::string(60, '?') + "*b**",  // "?" in a searched piece: automaton
        "**" + anyPieces + "b**",              // the same over 4 words
        "**" + slashPieces + "b**",            // "/" in a middle block: automaton
    };
    adversaries = {
        {"**a**a**a**a**b", as},   {"**a**a**a**a**b**", as},    {"*a*a*a*a*a*b", as2},
        {"*a*a*a*a*a*b*", as},     {"**a*a*a*a*a*b**", as},      {"**a*a*a*a*a*b**", dirs},
        {"/**/a*a*a*a*a*b", dirs}, {"**/*a*a*a*a*b/**", dirs},   {"**a?*a?*a?*a?*b**", dirs},
        {"*\\**\\**\\**b", mixed}, {"**\\*a/**\\*a/**c", mixed}, {kLong[0].c_str(), as},
        {kLong[1].c_str(), as},    {kLong[2].c_str(), as},       {kLong[3].c_str(), slashes},
    };
}

void BM_Adversary(benchmark::State &state) {
    const Adversary &a = adversaries[static_cast<size_t>(state.range(0))];
    PathFilter one;
    one.addExcludePattern(a.pattern);
    for (auto _ : state) benchmark::DoNotOptimize(one.filterOut(a.path));
    state.SetLabel(std::string(a.pattern).substr(0, 40));
}

void BM_AdversaryMatch(benchmark::State &state) {
    const Adversary &a = adversaries[static_cast<size_t>(state.range(0))];
    for (auto _ : state) {
        benchmark::DoNotOptimize(PathFilterPrivate::match(a.pattern, a.path.c_str()));
    }
    state.SetLabel(std::string(a.pattern).substr(0, 40));
}

// rebase() of 500 single stars against a 4,000-byte prefix that they fail on only at its end,
// beside rebase() of a literal pattern that walks the same prefix once.
struct HostileRebase {
    std::string pattern, prefix, literal;
    HostileRebase() {
        for (int i = 0; i < 500; ++i) pattern += "*a";
        pattern += "/z";
        prefix = std::string(3998, 'a') + "/q";
        literal = prefix + "/**";
    }
};
const HostileRebase hostile;
double rebasePeakKilobytes = -1;

void rebaseBench(benchmark::State &state, const std::string &pattern, int expected) {
    std::string out;
    size_t before = heldBytes;
    peakBytes = before;
    int result = PathFilterPrivate::rebase(pattern.c_str(), hostile.prefix.c_str(), out);
    double peak = static_cast<double>(peakBytes - before) / 1024;
    state.counters["peak_KB"] = peak;
    if (&pattern == &hostile.pattern) rebasePeakKilobytes = peak;
    if (result != expected) state.SkipWithError("unexpected rebase result");
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            PathFilterPrivate::rebase(pattern.c_str(), hostile.prefix.c_str(), out));
    }
}

void BM_RebaseStars(benchmark::State &state) {
    rebaseBench(state, hostile.pattern, -2);
}

void BM_RebaseLiteral(benchmark::State &state) {
    rebaseBench(state, hostile.literal, 1);
}

std::string takeOption(int *argc, char **argv, const char *name, const std::string &fallback) {
    std::string prefix = std::string("--") + name + "=";
    for (int i = 1; i < *argc; ++i) {
        if (strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) {
            std::string value = argv[i] + prefix.size();
            for (int j = i; j < *argc; ++j) argv[j] = argv[j + 1];
            --*argc;
            return value;
        }
    }
    return fallback;
}

bool loadLines(FILE *in, std::vector<std::string> &out) {
    char *line = nullptr;
    size_t capacity = 0;
    ssize_t n;
    while ((n = getline(&line, &capacity, in)) > 0) {
        if (line[n - 1] == '\n') line[--n] = '\0';
        out.emplace_back(line, static_cast<size_t>(n));
    }
    free(line);
    return !out.empty();
}

bool loadPatterns(const std::string &file) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        size_t tab = line.find('\t');
        if (line.empty() || line[0] == '#' || tab == std::string::npos) continue;
        std::string kind = line.substr(0, tab), pattern = line.substr(tab + 1);
        if (kind == "prior") {
            lists.prior.push_back(pattern);
            fnLists.prior.push_back(toFnmatch(pattern));
            filter.addPriorIncludePattern(pattern);
        } else if (kind == "include") {
            lists.include.push_back(pattern);
            fnLists.include.push_back(toFnmatch(pattern));
            filter.addIncludePattern(pattern);
        } else if (kind == "exclude") {
            lists.exclude.push_back(pattern);
            fnLists.exclude.push_back(toFnmatch(pattern));
            filter.addExcludePattern(pattern);
        }
    }
    return !lists.exclude.empty();
}

// The three ways must agree on every path of the corpus before any timing means anything.
bool checkAgreement() {
    size_t out1 = 0, out2 = 0, fnDiffer = 0, matchDiffer = 0;
    for (const std::string &path : corpus) {
        bool a = filterRule1(path), b = filterRule2(path);
        out1 += a;
        out2 += b;
        matchDiffer += (a != matchRule1(path)) + (b != matchRule2(path));
        fnDiffer += (a != fnRule1(path)) + (b != fnRule2(path));
    }
    printf("corpus: %zu paths, %zu prior + %zu include + %zu exclude patterns\n", corpus.size(),
           lists.prior.size(), lists.include.size(), lists.exclude.size());
    printf("left out: %zu by filterOut, %zu by filterOutIncludeException\n", out1, out2);
    printf("decisions differing from match(): %zu, from fnmatch: %zu\n", matchDiffer, fnDiffer);
    long before = allocations.load();
    size_t left = 0;
    for (const std::string &path : corpus) left += filterRule1(path) + filterRule2(path);
    printf("allocations during %zu decisions: %ld\n\n", 2 * corpus.size(),
           allocations.load() - before);
    benchmark::DoNotOptimize(left);
    return matchDiffer == 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string data = TELO_BENCH_DATA_DIR;
    std::string corpusFile = takeOption(&argc, argv, "corpus", "");
    std::string patternFile = takeOption(&argc, argv, "patterns", data + "/filter_patterns.txt");
    if (!loadPatterns(patternFile)) {
        fprintf(stderr, "no patterns in %s\n", patternFile.c_str());
        return 1;
    }
    FILE *in = corpusFile.empty()
                   ? popen(("python3 '" + data + "/gen_paths.py' 1000000 42").c_str(), "r")
                   : fopen(corpusFile.c_str(), "r");
    if (in == nullptr || !loadLines(in, corpus)) {
        fprintf(stderr, "cannot read the corpus\n");
        return 1;
    }
    corpusFile.empty() ? pclose(in) : fclose(in);
    if (!checkAgreement()) {
        fprintf(stderr, "the filter disagrees with match()\n");
        return 1;
    }
    buildAdversaries();
    buildGrowthSets();

    auto iterations = static_cast<benchmark::IterationCount>(corpus.size() / kChunk);
    auto add = [&](const char *name, void (*fn)(benchmark::State &), int repetitions) {
        benchmark::RegisterBenchmark(name, fn)
            ->Iterations(iterations)
            ->Repetitions(repetitions)
            ->ReportAggregatesOnly()
            ->Unit(benchmark::kMicrosecond);
    };
    add("BM_FilterOut/library", BM_Corpus<filterRule1>, 5);
    add("BM_FilterOut/match_each", BM_Corpus<matchRule1>, 3);
    add("BM_FilterOut/fnmatch", BM_Corpus<fnRule1>, 3);
    add("BM_IncludeException/library", BM_Corpus<filterRule2>, 5);
    add("BM_IncludeException/match_each", BM_Corpus<matchRule2>, 3);
    add("BM_IncludeException/fnmatch", BM_Corpus<fnRule2>, 3);
    for (int copies : kCopies) {
        for (auto growth : {std::make_pair("BM_GrowthLibrary", BM_Growth<true>),
                            std::make_pair("BM_GrowthFnmatch", BM_Growth<false>)}) {
            benchmark::RegisterBenchmark(growth.first, growth.second)
                ->Arg(copies)
                ->Repetitions(3)
                ->ReportAggregatesOnly()
                ->ComputeStatistics("min", telobench::minimumOf)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    for (size_t i = 0; i < adversaries.size(); ++i) {
        benchmark::RegisterBenchmark("BM_Adversary", BM_Adversary)
            ->Arg(static_cast<int64_t>(i))
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("BM_AdversaryMatch", BM_AdversaryMatch)
            ->Arg(static_cast<int64_t>(i))
            ->Unit(benchmark::kMicrosecond);
    }

    auto addRebase = [](const char *name, void (*fn)(benchmark::State &)) {
        benchmark::RegisterBenchmark(name, fn)
            ->Repetitions(5)
            ->ReportAggregatesOnly()
            ->ComputeStatistics("min", telobench::minimumOf)
            ->Unit(benchmark::kMicrosecond);
    };
    addRebase("BM_RebaseStars", BM_RebaseStars);
    addRebase("BM_RebaseLiteral", BM_RebaseLiteral);

    telobench::initialize(&argc, argv);
    telobench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    reporter.heading("Per path (us per 1000 paths = ns per path)");
    reporter.ratio("filterOut, ns per path (target <= 300)", "BM_FilterOut/library",
                   "BM_FilterOut/library", 0);
    reporter.heading("Library / baseline (lower is faster)");
    reporter.ratio("filterOut / match() per pattern", "BM_FilterOut/library",
                   "BM_FilterOut/match_each", 0.1);
    reporter.ratio("filterOut / fnmatch", "BM_FilterOut/library", "BM_FilterOut/fnmatch", 0.2);
    reporter.ratio("filterOutIncludeException / match()", "BM_IncludeException/library",
                   "BM_IncludeException/match_each", 0.1);
    reporter.ratio("filterOutIncludeException / fnmatch", "BM_IncludeException/library",
                   "BM_IncludeException/fnmatch", 0.2);
    reporter.heading("filterOut by number of patterns, per path, minimum of 3 (the set of " +
                     std::to_string(growthSets[1]->patterns) + " and its copies)");
    printGrowth(reporter);
    reporter.heading("Adversarial single decisions on 4 KiB paths (us, limit 50)");
    double worst = 0;
    size_t worstIndex = 0;
    for (size_t i = 0; i < adversaries.size(); ++i) {
        double t = reporter.timeOf("BM_Adversary/" + std::to_string(i));
        double m = reporter.timeOf("BM_AdversaryMatch/" + std::to_string(i));
        printf("  %-44.44s %9.2f us  (match(): %10.2f us)%s\n", adversaries[i].pattern, t, m,
               t > 50 ? "  OVER" : "");
        if (t > worst) worst = t, worstIndex = i;
    }
    printf("worst: \"%.60s\" at %.2f us\n", adversaries[worstIndex].pattern, worst);
    reporter.heading("rebase of 500 single stars under a 4,000-byte prefix");
    reporter.ratio("rebase / rebase of a literal pattern", "BM_RebaseStars/", "BM_RebaseLiteral/",
                   0);
    printf("most heap held during one rebase: %.1f KB\n", rebasePeakKilobytes);
    return reporter.misses() == 0 && worst <= 50 ? 0 : 1;
}
