// The filter's decisions against a plain reference of the pattern language (POSIX regular
// expressions): match(), the compiled patterns and whole filters must agree with it,
// exhaustively over short strings and on large random sets.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "path/path_filter_private.h"
#include "support/glob_reference.h"
#include "telobackup/path/path_filter.h"

using TELO::Backup::PathFilterPrivate;
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

// One pattern against many paths with the three matchers; the number of disagreements.
int compareAll(const std::string &pattern, const std::vector<std::string> &paths) {
    GlobReference reference(pattern);
    TELO::Backup::internal::CompiledPattern compiled(pattern.c_str());
    int failures = 0;
    for (const std::string &path : paths) {
        bool expected = reference.matches(path);
        TELO::Backup::internal::MatchSubject subject(path.c_str(), path.size());
        bool byMatch = PathFilterPrivate::match(pattern.c_str(), path.c_str()) == 1;
        bool byCompiled = compiled.matches(subject);
        if ((byMatch != expected || byCompiled != expected) && ++failures < 5) {
            ADD_FAILURE() << "\"" << pattern << "\" \"" << path << "\": reference " << expected
                          << ", match() " << byMatch << ", compiled " << byCompiled;
        }
    }
    return failures;
}

// Random patterns from the pieces that matter, and paths that expand them, mostly made near
// misses.
class RandomCases {
  public:
    explicit RandomCases(unsigned seed) : random_(seed) {}

    int pick(size_t n) { return static_cast<int>(random_() % n); }

    std::string pattern(int pieces) {
        static const char *const kPieces[] = {"a",  "b",   "ab",  "/",   "/",    "?", "*",   "*",
                                              "**", "***", "\\*", "\\?", "\\\\", "[", "/a/", "ba"};
        std::string out;
        for (int n = pick(pieces) + 1; n > 0; --n) out += kPieces[pick(16)];
        return pick(20) == 0 ? out + "\\" : out;
    }

    std::string pathFor(const std::string &pattern, bool clean = false) {
        std::string out;
        for (size_t i = 0; i < pattern.size(); ++i) {
            if (pattern[i] == '*') {
                bool run = pattern.compare(i, 2, "**") == 0;
                while (pattern.compare(i, 2, "**") == 0) ++i;
                for (int n = pick(4); n > 0; --n) out += run ? "ab/"[pick(3)] : "ab"[pick(2)];
            } else if (pattern[i] == '?') {
                out += "ab/"[pick(3)];
            } else {
                out += pattern[i += (pattern[i] == '\\' && i + 1 < pattern.size())];
            }
        }
        if (clean) return out;
        for (int n = pick(3); n > 0 && !out.empty(); --n) out[pick(out.size())] = "ab/*"[pick(4)];
        if (pick(4) == 0 && !out.empty()) out.erase(pick(out.size()), 1);
        if (pick(4) == 0) out.insert(pick(out.size() + 1), 1, "ab/"[pick(3)]);
        return out;
    }

  private:
    std::mt19937 random_;
};

}  // namespace

TEST(PathFilterDifferential, EveryShortPatternAndPath) {
    std::vector<std::string> paths = allStrings("ab/", 6);
    int failures = 0;
    for (const std::string &pattern : allStrings("ab/*?\\", 5)) {
        if ((failures += compareAll(pattern, paths)) > 20) break;
    }
}

// Every tenth pattern is long, made mostly of single stars, for blocks longer than one and
// than several words of the automaton.
TEST(PathFilterDifferential, RandomPatternsAndPaths) {
    static const char *const kLong[] = {"a?b*", "a?b*", "ab*", "?*", "a/*", "b", "**"};
    RandomCases cases(20240521);
    int failures = 0;
    for (int i = 0; i < 8000 && failures < 20; ++i) {
        std::string pattern = i % 10 ? cases.pattern(8) : "**";
        for (int n = i % 10 ? 0 : 20 + cases.pick(i % 100 ? 60 : 400); n > 0; --n) {
            pattern += kLong[cases.pick(cases.pick(8) ? 6 : 7)];
        }
        std::vector<std::string> paths;
        for (int j = 0; j < 20; ++j) paths.push_back(cases.pathFor(pattern, j < 6));
        failures += compareAll(pattern, paths);
    }
}

TEST(PathFilterDifferential, FilterDecisions) {
    RandomCases cases(7);
    for (int round = 0; round < 200; ++round) {
        TELO::Backup::PathFilter filter;
        std::vector<std::unique_ptr<GlobReference>> lists[3];  // prior, include, exclude
        std::vector<std::string> all{"ab"};
        for (int list = 0; list < 3; ++list) {
            for (int n = cases.pick(4); n > 0; --n) {
                all.push_back(cases.pattern(8));
                lists[list].push_back(std::make_unique<GlobReference>(all.back()));
                (list == 0   ? filter.addPriorIncludePattern(all.back())
                 : list == 1 ? filter.addIncludePattern(all.back())
                             : filter.addExcludePattern(all.back()));
            }
        }
        for (int j = 0; j < 200; ++j) {
            std::string path = cases.pathFor(all[cases.pick(all.size())]);
            bool hit[3] = {};
            for (int list = 0; list < 3; ++list) {
                for (const auto &reference : lists[list]) hit[list] |= reference->matches(path);
            }
            ASSERT_EQ(!hit[0] && !hit[1] && hit[2], filter.filterOut(path)) << path;
            ASSERT_EQ(!hit[0] && (hit[2] || !hit[1]), filter.filterOutIncludeException(path))
                << path;
        }
    }
}
