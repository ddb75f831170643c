#include "telobackup/path/path_util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

using TELO::Backup::ConfigPath;
using TELO::Backup::Path;
using Parts = std::vector<std::string>;

// Each row: a, b, join(a, b).
TEST(PathAlgebra, JoinTwo) {
    // clang-format off
    const char *cases[][3] = {
        // Separators at the seam collapse to one; inner and trailing ones stay.
        {"a", "b", "a/b"}, {"a/", "/b/", "a/b/"}, {"a//", "//b//c", "a/b//c"}, {"/", "x", "/x"},
        {"///", "", "/"}, {"///", "///", "/"}, {"/a", "", "/a"}, {"a/", "", "a"},
        // Empty sides; a leading slash of b goes even when a is empty.
        {"", "", ""}, {"", "x", "x"}, {"", "/x", "x"}, {"", "/", ""},
        // "." on either side, and one leading "./" of b.
        {".", "x", "x"}, {"./", "x", "x"}, {".", "/x/", "x/"}, {"a", ".", "a"}, {"a", "./b", "a/b"},
        {"a", "././b", "a/./b"}, {"a", "/./b", "a/b"}, {"a", "./", "a"}, {"a", ".x", "a/.x"},
        {"/", ".", "/"}, {"", ".", ""}, {".", ".", ""},
        // No normalisation.
        {"a", "..", "a/.."}, {"a/./b", "../c", "a/./b/../c"},
    };
    // clang-format on
    for (const auto &c : cases) EXPECT_EQ(c[2], Path::join(c[0], c[1])) << c[0] << " + " << c[1];
}

TEST(PathAlgebra, JoinSevenAndRange) {
    EXPECT_EQ("a/b/c", Path::join("a", "b", "", "c", "", "", ""));
    EXPECT_EQ("a", Path::join("a/", "", "", "", "", "", ""));
    // c is always joined: an empty c strips the trailing slash and turns "." into "".
    EXPECT_EQ("a/b", Path::join("a", "b/", ""));
    EXPECT_EQ("", Path::join(".", "", ""));
    // d..g are skipped when empty, so a trailing slash they would strip survives.
    EXPECT_EQ("/x/y/", Path::join("/", "x", "y/", "", "", "", ""));
    EXPECT_EQ("a/b/c/d/e/f/g", Path::join("a", "b", "c", "d", "e", "f", "g"));

    Parts parts{"/", "a", "b/"};
    EXPECT_EQ("/a/b/", Path::join(parts));
    EXPECT_EQ("/a", Path::join(parts.cbegin(), parts.cbegin() + 2));
    EXPECT_EQ("", Path::join(Parts{}));
    // A single element comes back untouched.
    EXPECT_EQ("a//", Path::join(Parts{"a//"}));
    EXPECT_EQ(".", Path::join(Parts{"."}));
}

TEST(PathAlgebra, SplitAndToken) {
    struct {
        const char *path;
        Parts parts;
    } splits[] = {
        // clang-format off
        {"", {}}, {"/", {"/"}}, {"//", {"/", "/"}}, {"a", {"a"}}, {"a//", {"a", "/"}},
        {"a//b", {"a", "", "b"}}, {"/a/", {"/", "a/"}}, {"a/b/", {"a", "b/"}},
        {"///a", {"/", "", "", "a"}},
        // clang-format on
    };
    for (const auto &c : splits) {
        Parts out{"stale"};
        EXPECT_TRUE(Path::split(c.path, out));
        EXPECT_EQ(c.parts, out) << c.path;
    }
    // Join undoes the split of plain paths.
    for (const char *path : {"/a/b", "a/b/", "/a/b/c/", "x", "/"}) {
        Parts parts;
        Path::split(path, parts);
        EXPECT_EQ(path, Path::join(parts));
    }
    struct {
        const char *path;
        unsigned index;
        const char *token;
    } tokens[] = {
        // clang-format off
        {"", 0, ""}, {"", 1, ""}, {"/a/b", 0, "/"}, {"/a/b", 1, "a"}, {"/a/b", 2, "b"},
        {"/a/b", 3, ""}, {"a/b", 0, "a"}, {"a/", 0, "a/"}, {"a//", 0, "a/"}, {"a//b", 0, "a"},
        {"a/b/", 1, "b/"}, {"a//b", 1, ""},
        // clang-format on
    };
    for (const auto &c : tokens) EXPECT_EQ(c.token, Path::token(c.path, c.index)) << c.path;
}

// Each row: a, b, common(a, b); then path, base, relative(path, base).
TEST(PathAlgebra, CommonAndRelative) {
    // clang-format off
    const char *common[][3] = {
        {"/a/b/c", "/a/b/d", "/a/b"}, {"/a/b/", "/a/b", "/a/b"}, {"/a/b", "/a/bc", "/a"},
        {"/x", "/y", "/"}, {"a", "b", ""}, {"a/b", "a/c", "a"}, {"/a", "a", ""}, {"", "/a", ""},
        // A lone "/" is stripped to empty before the comparison.
        {"/", "/a", ""}, {"/", "/", ""},
    };
    const char *relative[][3] = {
        {"/a/b/c", "/a", "b/c"}, {"/a/b/c", "/a///", "b/c"}, {"/a/b", "/a/b", ""},
        {"/a/b/", "/a/b", ""}, {"/a/bc", "/a/b", ""}, {"/x/y", "/", "x/y"}, {"/x/y", "///", "x/y"},
        {"/x", "", ""}, {"", "/", ""}, {"a/b", "a", "b"}, {"/a//b", "/a", "/b"},
    };
    // clang-format on
    for (const auto &c : common) {
        // Symmetric.
        EXPECT_EQ(c[2], Path::common(c[0], c[1])) << c[0] << " " << c[1];
        EXPECT_EQ(c[2], Path::common(c[1], c[0])) << c[1] << " " << c[0];
    }
    for (const auto &c : relative) {
        EXPECT_EQ(c[2], Path::relative(c[0], c[1])) << c[0] << " under " << c[1];
    }
}

TEST(PathAlgebra, BasenameAndDirname) {
    // Each row: path, basename, dirname; only the text before an embedded NUL counts.
    const std::string cases[][3] = {
        // clang-format off
        {"/a/b/", "b", "/a"}, {"/a/b", "b", "/a"}, {"/", "/", "/"}, {"", ".", "."},
        {"a", "a", "."}, {"/a", "a", "/"}, {std::string("/a/x\0/y", 7), "x", "/a"},
        // clang-format on
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c[1], Path::basename(c[0])) << c[0];
        EXPECT_EQ(c[2], Path::dirname(c[0])) << c[0];
    }
}

// The log path is checked through the log itself.
TEST(PathAlgebra, AbsoluteAndFixedLocations) {
    EXPECT_EQ("/x/../y", Path::absPath("/x/../y"));
    EXPECT_EQ("/tmp/telobackup", Path::getIpcTempPath());
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    EXPECT_EQ(self, Path::getBinPath());
    EXPECT_CHILD_OK([] {
        CHILD_CHECK(chdir("/usr") == 0);
        CHILD_CHECK(Path::absPath("x") == "/usr/x" && Path::absPath("") == "/usr");
        CHILD_CHECK(chdir("/") == 0);
        CHILD_CHECK_EQ(std::string("/x"), Path::absPath("x"));
    });
}

TEST(PathAlgebra, ShareNameAndRelativePath) {
    // clang-format off
    const char *cases[][3] = {
        {"/photos/2024/trip", "photos", "2024/trip"}, {"/photos/2024/", "photos", "2024/"},
        {"/photos/", "photos", ""}, {"/photos", "photos", ""}, {"/photos//x", "photos", "/x"},
        {"/", "", ""}, {"//x", "", "x"}, {"", "", ""}, {"photos/2024", "", ""}};
    // clang-format on
    for (const auto &c : cases) {
        EXPECT_EQ(c[1], ConfigPath::shareName(c[0])) << c[0];
        EXPECT_EQ(c[2], ConfigPath::shareRelativePath(c[0])) << c[0];
    }
}
