#include "telobackup/path/path_util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

using TELO::Backup::Path;
using Parts = std::vector<std::string>;

namespace {

void checkJoin(const std::string &a, const std::string &b, const std::string &expected) {
    SCOPED_TRACE("join(\"" + a + "\", \"" + b + "\")");
    EXPECT_EQ(expected, Path::join(a, b));
}

void checkSplit(const std::string &path, const Parts &expected) {
    SCOPED_TRACE("split(\"" + path + "\")");
    Parts out{"stale"};
    EXPECT_TRUE(Path::split(path, out));
    EXPECT_EQ(expected, out);
}

void checkToken(const std::string &path, unsigned index, const std::string &expected) {
    SCOPED_TRACE("token(\"" + path + "\", " + std::to_string(index) + ")");
    EXPECT_EQ(expected, Path::token(path, index));
}

void checkCommon(const std::string &a, const std::string &b, const std::string &expected) {
    SCOPED_TRACE("common(\"" + a + "\", \"" + b + "\")");
    EXPECT_EQ(expected, Path::common(a, b));
}

void checkRelative(const std::string &path, const std::string &base, const std::string &expected) {
    SCOPED_TRACE("relative(\"" + path + "\", \"" + base + "\")");
    EXPECT_EQ(expected, Path::relative(path, base));
}

}  // namespace

TEST(PathJoin, TwoStrings) {
    // Separators at the seam collapse to one; inner and trailing ones stay.
    checkJoin("a", "b", "a/b");
    checkJoin("a/", "/b/", "a/b/");
    checkJoin("a//", "//b//c", "a/b//c");
    checkJoin("/", "x", "/x");
    checkJoin("///", "", "/");
    checkJoin("///", "///", "/");
    checkJoin("/a", "", "/a");
    checkJoin("a/", "", "a");
    // Empty sides; a leading slash of b goes even when a is empty.
    checkJoin("", "", "");
    checkJoin("", "x", "x");
    checkJoin("", "/x", "x");
    checkJoin("", "/", "");
    // "." on either side, and one leading "./" of b.
    checkJoin(".", "x", "x");
    checkJoin("./", "x", "x");
    checkJoin(".", "/x/", "x/");
    checkJoin("a", ".", "a");
    checkJoin("a", "./b", "a/b");
    checkJoin("a", "././b", "a/./b");
    checkJoin("a", "/./b", "a/b");
    checkJoin("a", "./", "a");
    checkJoin("a", ".x", "a/.x");
    checkJoin("/", ".", "/");
    checkJoin("", ".", "");
    checkJoin(".", ".", "");
    // No normalisation.
    checkJoin("a", "..", "a/..");
    checkJoin("a/./b", "../c", "a/./b/../c");
}

TEST(PathJoin, SevenStringsTreatTheThirdDifferently) {
    EXPECT_EQ("a/b/c", Path::join("a", "b", "", "c", "", "", ""));
    EXPECT_EQ("a", Path::join("a/", "", "", "", "", "", ""));
    // c is always joined: an empty c strips the trailing slash and turns "." into "".
    EXPECT_EQ("a/b", Path::join("a", "b/", ""));
    EXPECT_EQ("", Path::join(".", "", ""));
    // d..g are skipped when empty, so a trailing slash they would strip survives.
    EXPECT_EQ("a/b/c/d/e", Path::join("a", "b", "c", "d", "e", "", ""));
    EXPECT_EQ("/x/y/", Path::join("/", "x", "y/", "", "", "", ""));
    EXPECT_EQ("a/b/c/d/e/f/g", Path::join("a", "b", "c", "d", "e", "f", "g"));
}

TEST(PathJoin, Range) {
    Parts parts{"/", "a", "b/"};
    EXPECT_EQ("/a/b/", Path::join(parts));
    EXPECT_EQ("", Path::join(Parts{}));
    // A single element comes back untouched.
    EXPECT_EQ("a//", Path::join(Parts{"a//"}));
    EXPECT_EQ(".", Path::join(Parts{"."}));
    EXPECT_EQ("/a", Path::join(parts.cbegin(), parts.cbegin() + 2));
    EXPECT_EQ("", Path::join(parts.cbegin(), parts.cbegin()));
}

TEST(PathSplit, Components) {
    checkSplit("", {});
    checkSplit("/", {"/"});
    checkSplit("//", {"/", "/"});
    checkSplit("/a/b", {"/", "a", "b"});
    checkSplit("a/b/", {"a", "b/"});
    checkSplit("a//", {"a", "/"});
    checkSplit("a//b", {"a", "", "b"});
    checkSplit("a", {"a"});
    checkSplit("/a/", {"/", "a/"});
    checkSplit("///a", {"/", "", "", "a"});
}

TEST(PathSplit, JoinUndoesSplitOfPlainPaths) {
    for (const char *path : {"/a/b", "a/b/", "/a/b/c/", "x", "/"}) {
        SCOPED_TRACE(path);
        Parts parts;
        Path::split(path, parts);
        EXPECT_EQ(path, Path::join(parts));
    }
}

TEST(PathToken, Index0AndOthers) {
    checkToken("", 0, "");
    checkToken("", 1, "");
    checkToken("/a/b", 0, "/");
    checkToken("/a/b", 1, "a");
    checkToken("/a/b", 2, "b");
    checkToken("/a/b", 3, "");
    checkToken("a/b", 0, "a");
    checkToken("a", 0, "a");
    checkToken("a/", 0, "a/");
    checkToken("a//", 0, "a/");
    checkToken("a//b", 0, "a");
    checkToken("a/b/", 1, "b/");
    checkToken("a//b", 1, "");
}

TEST(PathCommon, LeadingComponents) {
    checkCommon("/a/b/c", "/a/b/d", "/a/b");
    checkCommon("/a/b/", "/a/b", "/a/b");
    checkCommon("/a/b", "/a/b/", "/a/b");
    checkCommon("/a/b", "/a/bc", "/a");
    checkCommon("/x", "/y", "/");
    checkCommon("a", "b", "");
    checkCommon("a/b", "a/c", "a");
    checkCommon("/a", "a", "");
    checkCommon("", "/a", "");
    // A lone "/" is stripped to empty before the comparison.
    checkCommon("/", "/a", "");
    checkCommon("/a", "/", "");
    checkCommon("/", "/", "");
    // Symmetric for these.
    for (auto [a, b] : {std::pair<std::string, std::string>{"/a/b/c", "/a/b"}, {"x/y", "x/z/w"}}) {
        EXPECT_EQ(Path::common(a, b), Path::common(b, a)) << a << " " << b;
    }
}

TEST(PathRelative, RemainderBelowBase) {
    checkRelative("/a/b/c", "/a", "b/c");
    checkRelative("/a/b/c", "/a/", "b/c");
    checkRelative("/a/b/c", "/a///", "b/c");
    checkRelative("/a/b", "/a/b", "");
    checkRelative("/a/b/", "/a/b", "");
    checkRelative("/a/bc", "/a/b", "");
    checkRelative("/x/y", "/", "x/y");
    checkRelative("/x/y", "///", "x/y");
    checkRelative("/x", "", "");
    checkRelative("", "/", "");
    checkRelative("a/b", "a", "b");
    checkRelative("/a//b", "/a", "/b");
}

TEST(PathBaseDir, PosixSemantics) {
    EXPECT_EQ("b", Path::basename("/a/b/"));
    EXPECT_EQ("b", Path::basename("/a/b"));
    EXPECT_EQ("/", Path::basename("/"));
    EXPECT_EQ(".", Path::basename(""));
    EXPECT_EQ("a", Path::basename("a"));
    EXPECT_EQ("/a", Path::dirname("/a/b"));
    EXPECT_EQ("/a", Path::dirname("/a/b/"));
    EXPECT_EQ(".", Path::dirname("a"));
    EXPECT_EQ("/", Path::dirname("/"));
    EXPECT_EQ("/", Path::dirname("/a"));
    EXPECT_EQ(".", Path::dirname(""));
    // Only the text before an embedded NUL counts.
    EXPECT_EQ("x", Path::basename(std::string("/a/x\0/y", 7)));
    EXPECT_EQ("/a", Path::dirname(std::string("/a/x\0/y", 7)));
}

TEST(PathAbs, AgainstTheCurrentDirectory) {
    EXPECT_EQ("/x/../y", Path::absPath("/x/../y"));
    EXPECT_CHILD_OK([] {
        CHILD_CHECK(chdir("/usr") == 0);
        CHILD_CHECK_EQ(std::string("/usr/x"), Path::absPath("x"));
        CHILD_CHECK_EQ(std::string("/usr"), Path::absPath(""));
        CHILD_CHECK(chdir("/") == 0);
        CHILD_CHECK_EQ(std::string("/x"), Path::absPath("x"));
        return std::string();
    });
}

TEST(PathLocations, FixedAndDerived) {
    EXPECT_EQ("/tmp/telobackup", Path::getIpcTempPath());
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    EXPECT_EQ(self, Path::getBinPath());
    EXPECT_CHILD_OK([self = std::string(self)] {
        unsetenv("TELO_LOGFILE");
        CHILD_CHECK_EQ(Path::join(Path::dirname(self), "Quarnix.log"), Path::getLogPath());
        setenv("TELO_LOGFILE", "/var/log/x.log", 1);
        CHILD_CHECK_EQ(std::string("/var/log/x.log"), Path::getLogPath());
        setenv("TELO_LOGFILE", "", 1);
        CHILD_CHECK_EQ(std::string(""), Path::getLogPath());
        return std::string();
    });
}

TEST(ConfigPath, ShareNameAndRelativePath) {
    using TELO::Backup::ConfigPath;
    // clang-format off
    struct { const char *path, *name, *relative; } cases[] = {
        {"/photos/2024/trip", "photos", "2024/trip"}, {"/photos/2024/", "photos", "2024/"},
        {"/photos/", "photos", ""}, {"/photos", "photos", ""}, {"/photos//x", "photos", "/x"},
        {"/", "", ""}, {"//x", "", "x"}, {"", "", ""}, {"photos/2024", "", ""}};
    // clang-format on
    for (const auto &c : cases) {
        EXPECT_EQ(c.name, ConfigPath::shareName(c.path)) << c.path;
        EXPECT_EQ(c.relative, ConfigPath::shareRelativePath(c.path)) << c.path;
    }
}
