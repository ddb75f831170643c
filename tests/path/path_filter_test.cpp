#include "telobackup/path/path_filter.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "path/path_filter_private.h"

using TELO::Backup::PathFilter;
using TELO::Backup::PathFilterPrivate;
using Patterns = std::list<std::string>;

namespace {

void checkMatch(const char *pattern, const char *path, int expected) {
    SCOPED_TRACE(std::string("match(\"") + pattern + "\", \"" + path + "\")");
    EXPECT_EQ(expected, PathFilterPrivate::match(pattern, path));
}

void checkRebase(const char *pattern, const char *prefix, int expected, const char *out = "-") {
    SCOPED_TRACE(std::string("rebase(\"") + pattern + "\", \"" + prefix + "\")");
    std::string rest = "-";
    EXPECT_EQ(expected, PathFilterPrivate::rebase(pattern, prefix, rest));
    EXPECT_EQ(out, rest);
}

Patterns includes(PathFilter &filter, const std::string &prefix) {
    Patterns out;
    filter.getIncludePattern(out, prefix);
    return out;
}

}  // namespace

TEST(PathFilterMatch, Language) {
    // "?" and "*" stay inside a component; two or more stars do not.
    checkMatch("/a/*", "/a/b", 1);
    checkMatch("/a/*", "/a/b/c", 0);
    checkMatch("/a/**", "/a/b/c", 1);
    checkMatch("/a/***", "/a/b/c", 1);
    checkMatch("/a/?", "/a/b", 1);
    checkMatch("/a/?", "/a//", 0);
    checkMatch("*", "abc", 1);
    checkMatch("*", "a/b", 0);
    checkMatch("*", "", 1);
    checkMatch("**", "", 1);
    checkMatch("**", "/a/b/", 1);
    checkMatch("", "", 1);
    checkMatch("", "a", 0);
    checkMatch("*.tmp", "/x/y.tmp", -2);
    checkMatch("/**/*.tmp", "/x/y.tmp", 1);
    checkMatch("/**/*.tmp", "/y.tmp", -1);
    // Escapes; "[" is an ordinary byte.
    checkMatch("a\\*b", "a*b", 1);
    checkMatch("a\\*b", "axb", 0);
    checkMatch("a\\\\b", "a\\b", 1);
    checkMatch("a\\?", "a?", 1);
    checkMatch("a\\?", "ab", 0);
    checkMatch("[ab]", "[ab]", 1);
    checkMatch("[ab]", "a", 0);
}

TEST(PathFilterMatch, ResultCodes) {
    // -1: the path ran out first, also inside the trial of a star.
    checkMatch("/a/b", "/a", -1);
    checkMatch("/a*b", "/a", -1);
    checkMatch("/a**b", "/a", -1);
    checkMatch("ab*c", "abxx", -1);
    checkMatch("**b", "a/b/c", -1);
    checkMatch("a\\", "a", -1);  // a lone backslash never matches
    checkMatch("a\\", "ab", 0);
    // -2: a single star would have to cross "/"; a run of stars ignores it and goes on.
    checkMatch("*b", "a/b", -2);
    checkMatch("*a*b", "xa/ab", -2);
    checkMatch("**a*b", "a/ab", 1);
    checkMatch("a*", "a/b", 0);
}

TEST(PathFilterRebase, Remainders) {
    checkRebase("/a/***/b", "/a/x", 1, "/**/b");
    checkRebase("/a/b", "/a/b", 1, "");
    checkRebase("/vol/share/dir/*.txt", "/vol/share/dir", 1, "/*.txt");
    checkRebase("/a/*", "/a/x", 1, "*");
    checkRebase("/a/*.txt", "/a/x", 1, ".txt");
    checkRebase("/a/?/c", "/a/x", 1, "/c");
    checkRebase("/a\\*/c", "/a*", 1, "/c");
    checkRebase("/**", "/a/b/c", 1, "/**");
    // Patterns that cannot apply below the prefix.
    checkRebase("/a/*", "/a/x/y", 0);
    checkRebase("/b/**", "/a", 0);
    checkRebase("/a", "/a/b", 0);
    checkRebase("/ab", "/a", 0);
    checkRebase("/a?", "/a/", 0);
    checkRebase("/*/c", "/a/b", -2);
}

TEST(PathFilterRebase, GetPatternLists) {
    PathFilter filter;
    filter.addIncludePattern("/vol/share/dir/*.txt");
    filter.addIncludePattern("/other/**");
    filter.addIncludePattern("/vol/**");
    filter.addIncludePattern("/vol/share/dir");
    EXPECT_EQ((Patterns{"/dir/*.txt", "/dir/**", "/dir"}), includes(filter, "/vol/share/dir"));
    // An empty prefix copies the list over what `out` held; otherwise `out` is appended to.
    Patterns out{"x", "y", "z", "w", "v"};
    filter.getIncludePattern(out, "");
    EXPECT_EQ((Patterns{"/vol/share/dir/*.txt", "/other/**", "/vol/**", "/vol/share/dir"}), out);
    out = {"kept"};
    filter.getIncludePattern(out, "/other");
    EXPECT_EQ((Patterns{"kept", "/other/**"}), out);
    // A prefix without "/" fails only once a pattern applies.
    EXPECT_EQ(Patterns{}, includes(filter, "vol"));
    filter.addIncludePattern("**");
    EXPECT_THROW(includes(filter, "vol"), std::out_of_range);
    // Each getter reads its own list.
    filter.addPriorIncludePattern("/p/*");
    filter.addExcludePattern("/e/**");
    out.clear();
    filter.getPriorIncludePattern(out, "/p");
    filter.getExcludePattern(out, "/e/f");
    EXPECT_EQ((Patterns{"/p/*", "/f/**"}), out);
}

TEST(PathFilterRules, EmptyListsAndPrecedence) {
    PathFilter none;
    for (const char *path : {"", "/", "/x/y"}) {
        EXPECT_FALSE(none.filterOut(path)) << path;
        EXPECT_TRUE(none.filterOutIncludeException(path)) << path;
    }
    PathFilter filter;
    filter.addExcludePattern("/x/**");
    EXPECT_TRUE(filter.filterOutIncludeException("/y"));  // no include list: all left out
    filter.addIncludePattern("/x/keep/**");
    filter.addIncludePattern("/y");
    // Rule 1: includes are exceptions to the exclusions.
    EXPECT_FALSE(filter.filterOut("/x/keep/f"));
    EXPECT_TRUE(filter.filterOut("/x/drop"));
    EXPECT_FALSE(filter.filterOut("/z"));
    // Rule 2: exclusions win, and only included paths pass.
    EXPECT_TRUE(filter.filterOutIncludeException("/x/keep/f"));
    EXPECT_FALSE(filter.filterOutIncludeException("/y"));
    EXPECT_TRUE(filter.filterOutIncludeException("/z"));
    // Prior includes win under both rules, and survive clear().
    filter.addPriorIncludePattern("/x/keep/**");
    EXPECT_FALSE(filter.filterOutIncludeException("/x/keep/f"));
    filter.clear();
    EXPECT_FALSE(filter.filterOut("/x/drop"));
    EXPECT_FALSE(filter.filterOutIncludeException("/x/keep/f"));
    EXPECT_TRUE(filter.filterOutIncludeException("/y"));
    EXPECT_EQ(Patterns{}, includes(filter, ""));
}

TEST(PathFilterRules, ListsAndPaths) {
    PathFilter filter;
    // The list adders merge in byte order and take the strings.
    filter.addIncludePattern("/m");
    Patterns more{"/a", "/z"};
    EXPECT_TRUE(filter.addIncludePattern(more));
    EXPECT_TRUE(more.empty());
    EXPECT_EQ((Patterns{"/a", "/m", "/z"}), includes(filter, ""));
    more = {"/e/1", "/e/2"};
    filter.addExcludePattern(more);
    more = {"/p"};
    filter.addPriorIncludePattern(more);
    EXPECT_TRUE(filter.filterOutIncludeException("/e/1"));
    EXPECT_FALSE(filter.filterOutIncludeException("/z"));
    EXPECT_FALSE(filter.filterOutIncludeException("/p"));
    // More patterns than one word of the candidate table, indexed by their last byte.
    for (int i = 0; i < 150; ++i) filter.addExcludePattern("/n/" + std::to_string(i));
    EXPECT_TRUE(filter.filterOut("/n/149"));
    EXPECT_TRUE(filter.filterOut("/n/7"));
    EXPECT_FALSE(filter.filterOut("/n/150"));
    // Paths are compared up to their first NUL byte; the empty path is a path.
    filter.addExcludePattern("/nul");
    EXPECT_TRUE(filter.filterOut(std::string("/nul\0/x", 7)));
    filter.addExcludePattern("**");
    EXPECT_TRUE(filter.filterOut(""));
}
