// The filter's decisions against a plain reference of the pattern language (POSIX regular
// expressions): the reference matcher, the compiled patterns and whole filters must agree on
// every case, exhaustively over short strings and on large random sets.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "path/path_filter_private.h"
#include "support/glob_reference.h"
#include "telobackup/path/path_filter.h"

using TELO::Backup::PathFilter;
using TELO::Backup::PathFilterPrivate;
using TELO::Backup::internal::CompiledPattern;
using TELO::Backup::internal::MatchSubject;
using testsupport::GlobReference;

namespace {

// All strings over `alphabet` of length up to `maxLength`.
std::vector<std::string> allStrings(const std::string &alphabet, size_t maxLength) {
    std::vector<std::string> out{""};
    for (size_t begin = 0, length = 0; length < maxLength; ++length) {
        size_t end = out.size();
        for (size_t i = begin; i < end; ++i) {
            for (char c : alphabet) out.push_back(out[i] + c);
        }
        begin = end;
    }
    return out;
}

// Checks one pattern against many paths with all three matchers; returns the failures seen.
int compareAll(const std::string &pattern, const std::vector<std::string> &paths) {
    GlobReference reference(pattern);
    CompiledPattern compiled(pattern.c_str());
    int failures = 0;
    for (const std::string &path : paths) {
        bool expected = reference.matches(path);
        MatchSubject subject(path.c_str(), path.size());
        bool byMatch = PathFilterPrivate::match(pattern.c_str(), path.c_str()) == 1;
        bool byCompiled = compiled.matches(subject);
        if (byMatch != expected || byCompiled != expected) {
            ADD_FAILURE() << "pattern \"" << pattern << "\" path \"" << path << "\": reference "
                          << expected << ", match() " << byMatch << ", compiled " << byCompiled
                          << " (" << reference.expression() << ")";
            if (++failures > 10) break;
        }
    }
    return failures;
}

// Random patterns built from the pieces that matter, and paths that are mostly near misses:
// expansions of the pattern with some bytes changed.
class RandomCases {
  public:
    explicit RandomCases(unsigned seed) : random_(seed) {}

    std::string pattern() {
        static const char *const kPieces[] = {"a",  "b",   "ab",  "/",   "/",    "?", "*",   "*",
                                              "**", "***", "\\*", "\\?", "\\\\", "[", "/a/", "ba"};
        std::string out;
        for (int n = pick(8) + 1; n > 0; --n) out += kPieces[pick(16)];
        if (pick(20) == 0) out += "\\";
        return out;
    }

    // A path the pattern matches, made a near miss unless `clean`.
    std::string pathFor(const std::string &pattern, bool clean = false) {
        std::string out;
        for (size_t i = 0; i < pattern.size(); ++i) {
            char c = pattern[i];
            if (c == '*') {
                bool run = i + 1 < pattern.size() && pattern[i + 1] == '*';
                while (i + 1 < pattern.size() && pattern[i + 1] == '*') ++i;
                for (int n = pick(4); n > 0; --n) out += run ? "ab/"[pick(3)] : "ab"[pick(2)];
            } else if (c == '?') {
                out += "ab/"[pick(3)];
            } else if (c == '\\' && i + 1 < pattern.size()) {
                out += pattern[++i];
            } else {
                out += c;
            }
        }
        if (clean) return out;
        // Near misses: bytes changed, dropped or added.
        for (int n = pick(3); n > 0 && !out.empty(); --n) out[pick(out.size())] = "ab/*"[pick(4)];
        if (pick(4) == 0 && !out.empty()) out.erase(pick(out.size()), 1);
        if (pick(4) == 0) out.insert(pick(out.size() + 1), 1, "ab/"[pick(3)]);
        return out;
    }

    int pick(size_t n) { return static_cast<int>(random_() % n); }

  private:
    std::mt19937 random_;
};

}  // namespace

TEST(PathFilterDifferential, EveryShortPatternAndPath) {
    std::vector<std::string> patterns = allStrings("ab/*?\\", 5);
    std::vector<std::string> paths = allStrings("ab/", 6);
    int failures = 0;
    for (const std::string &pattern : patterns) {
        failures += compareAll(pattern, paths);
        if (failures > 20) break;
    }
}

TEST(PathFilterDifferential, RandomPatternsAndPaths) {
    RandomCases cases(20240521);
    int failures = 0;
    for (int i = 0; i < 10000 && failures <= 20; ++i) {
        std::string pattern = cases.pattern();
        std::vector<std::string> paths;
        for (int j = 0; j < 40; ++j) paths.push_back(cases.pathFor(pattern));
        failures += compareAll(pattern, paths);
    }
}

// Blocks longer than one and than several words of the automaton, on long paths.
TEST(PathFilterDifferential, LongPatterns) {
    static const char *const kPieces[] = {"a?b*", "a?b*", "ab*", "?*", "a/*", "b", "**"};
    RandomCases cases(99);
    int failures = 0;
    for (int i = 0; i < 300 && failures <= 20; ++i) {
        std::string pattern = cases.pick(2) ? "**" : "";
        for (int n = 20 + cases.pick(i % 10 == 0 ? 400 : 60); n > 0; --n) {
            pattern += kPieces[cases.pick(cases.pick(8) ? 6 : 7)];
        }
        std::vector<std::string> paths;
        for (int j = 0; j < 10; ++j) paths.push_back(cases.pathFor(pattern, j < 5));
        failures += compareAll(pattern, paths);
    }
}

TEST(PathFilterDifferential, FilterDecisions) {
    RandomCases cases(7);
    for (int round = 0; round < 200; ++round) {
        PathFilter filter;
        std::vector<std::unique_ptr<GlobReference>> lists[3];  // prior, include, exclude
        std::vector<std::string> patterns;
        for (int list = 0; list < 3; ++list) {
            for (int n = cases.pick(4); n > 0; --n) {
                std::string pattern = cases.pattern();
                patterns.push_back(pattern);
                lists[list].push_back(std::make_unique<GlobReference>(pattern));
                if (list == 0) filter.addPriorIncludePattern(pattern);
                if (list == 1) filter.addIncludePattern(pattern);
                if (list == 2) filter.addExcludePattern(pattern);
            }
        }
        for (int j = 0; j < 200; ++j) {
            std::string path =
                patterns.empty() ? "ab" : cases.pathFor(patterns[cases.pick(patterns.size())]);
            bool hit[3];
            for (int list = 0; list < 3; ++list) {
                hit[list] = false;
                for (const auto &reference : lists[list]) hit[list] |= reference->matches(path);
            }
            bool out1 = !hit[0] && !hit[1] && hit[2];
            bool out2 = !hit[0] && (hit[2] || !hit[1]);
            ASSERT_EQ(out1, filter.filterOut(path)) << "path " << path << " round " << round;
            ASSERT_EQ(out2, filter.filterOutIncludeException(path)) << "path " << path;
        }
    }
}
