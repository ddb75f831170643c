// The path filter: match() result codes, rebase on inputs too big for the exhaustive loop, the
// decision rules by hand, then match(), filters and rebase against plain references (POSIX
// regular expressions, recursion), exhaustively over short strings. Long
// patterns (blocks of several automaton words, many stars) and prefixes are the fuzzer's seeds.
#include "telobackup/path/path_filter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "path/path_filter_private.h"
#include "support/glob_reference.h"

using TELO::Backup::PathFilter;
using TELO::Backup::PathFilterPrivate;
using testsupport::GlobReference;

// Whether a pattern matches is checked against the reference below; the codes of a miss are
// match()'s own: -1 the path ran out first, -2 a single star would cross "/" (a run of stars goes
// on past that).
TEST(PathFilterMatch, ResultCodes) {
    EXPECT_EQ(-1, PathFilterPrivate::match("/a*b", "/a"));
    EXPECT_EQ(-2, PathFilterPrivate::match("*a*b", "xa/ab"));
    EXPECT_EQ(1, PathFilterPrivate::match("**a*b", "a/ab"));
}

// Many single stars: a failure in polynomial time (trying every place was exponential), and far
// more stars than a stack has room for frames, each passed at once.
TEST(PathFilterRebase, ManyStars) {
    std::string out = "-";
    EXPECT_EQ(-2, PathFilterPrivate::rebase("*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a/z",
                                            std::string(48, 'a').append("/q").c_str(), out));
    EXPECT_EQ("-", out);
    std::string stars, as(200000, 'a');
    for (int i = 0; i < 200000; ++i) stars += "*a";
    EXPECT_EQ(1, PathFilterPrivate::rebase((stars + "/z").c_str(), as.c_str(), out));
    EXPECT_EQ("/z", out);
}

// Many more patterns than one word of the candidate table, indexed by their last byte.
TEST(PathFilterRules, ManyPatternsShareTheCandidateTable) {
    PathFilter filter;
    for (int i = 0; i < 20000; ++i) filter.addExcludePattern("/n/" + std::to_string(i));
    for (const char *in : {"/n/0", "/n/64", "/n/19999"}) EXPECT_TRUE(filter.filterOut(in)) << in;
    EXPECT_FALSE(filter.filterOut("/n/20000"));
}

namespace {

// All strings over `alphabet` of length up to `maxLength`, shortest first.
std::vector<std::string> allStrings(const std::string &alphabet, size_t maxLength) {
    std::vector<std::string> out{""};
    for (size_t i = 0; out[i].size() < maxLength; ++i) {
        for (char c : alphabet) out.push_back(out[i] + c);
    }
    return out;
}

}  // namespace

// Every short pattern against every short path: the reference, match(), and a filter that
// excludes by the pattern (its compiled form and its last-byte candidate table) decide alike,
// and rebase() under the shorter paths as prefixes gives what plain recursion gives.
TEST(PathFilterDifferential, EveryShortPatternPathAndPrefix) {
    std::vector<std::string> paths = allStrings("ab/", 6);
    for (const std::string &pattern : allStrings("ab/*?\\", 5)) {
        GlobReference reference(pattern);
        PathFilter filter;
        filter.addExcludePattern(pattern);
        for (const std::string &path : paths) {
            bool expected = reference.matches(path);
            ASSERT_EQ(expected, PathFilterPrivate::match(pattern.c_str(), path.c_str()) == 1)
                << "match() \"" << pattern << "\" \"" << path << "\"";
            ASSERT_EQ(expected, filter.filterOut(path))
                << "filter \"" << pattern << "\" \"" << path << "\"";
            if (path.size() > 4) continue;
            std::string got = "-", want = "-";
            int result = PathFilterPrivate::rebase(pattern.c_str(), path.c_str(), got);
            ASSERT_EQ(testsupport::rebaseReference(pattern.c_str(), path.c_str(), want), result)
                << "\"" << pattern << "\" under \"" << path << "\"";
            ASSERT_EQ(want, got) << "\"" << pattern << "\" under \"" << path << "\"";
        }
    }
}

// Both rules over every combination of prior include, include and exclude hits; rule 2 with an
// empty include list.
TEST(PathFilterRules, EveryCombinationOfHits) {
    PathFilter filter;
    filter.addPriorIncludePattern("/*p*");
    filter.addIncludePattern("/*i*");
    filter.addExcludePattern("/*e*");
    for (int hits = 0; hits < 8; ++hits) {
        bool prior = hits & 1, include = hits & 2, exclude = hits & 4;
        std::string path = std::string("/") + (prior ? "p" : "") + (include ? "i" : "") +
                           (exclude ? "e" : "") + "x";
        EXPECT_EQ(!prior && !include && exclude, filter.filterOut(path)) << path;
        EXPECT_EQ(!prior && (exclude || !include), filter.filterOutIncludeException(path)) << path;
    }
    PathFilter noIncludes;
    noIncludes.addExcludePattern("/e");
    EXPECT_TRUE(noIncludes.filterOutIncludeException("/x"));
    EXPECT_FALSE(noIncludes.filterOut("/x"));
}
