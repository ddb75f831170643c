// removeAll and renameWithMode on real trees; platform outcomes (ACLs, file-system types) come
// from the fake platform.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::Path;
using TELO::Backup::removeAll;
using namespace testsupport;
using Names = std::vector<std::string>;

namespace {

constexpr char kSource[] = "path/path_util";

class PathFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeplatform::reset();
        chmod(dir.path().c_str(), 0777);  // unprivileged children work in here too
    }
    TempDir dir;
    SyslogCapture log{kSource};
};

// `levels` nested directories "d" below `root`.
std::string below(std::string root, int levels) {
    while (levels-- > 0) root += "/d";
    return root;
}

// `root` and `depth - 1` levels below it (mode 0777), each holding a file "f" and a link "l" to
// `linkTarget`.
void makeChain(const std::string &root, int depth, const std::string &linkTarget) {
    for (int i = 0; i < depth; ++i) {
        std::string level = below(root, i);
        makeDir(level, 0777);
        writeFile(level + "/f", "x", 0666);
        symlink(linkTarget.c_str(), (level + "/l").c_str());
    }
}

}  // namespace

// Deeper than the walk's descriptor budget, so the lowest levels are walked by path.
TEST_F(PathFiles, RemoveAllRemovesEveryLevelButNoLinkTarget) {
    std::string outside = dir.file("outside");
    makeDir(outside);
    writeFile(outside + "/keep", "keep");
    const std::set<int> fds = openFds();
    makeChain(dir.file("tree"), 30, outside);
    ASSERT_EQ(0, symlink("/nonexistent/target", (below(dir.file("tree"), 29) + "/x").c_str()));
    EXPECT_TRUE(removeAll(dir.file("tree")));
    writeFile(dir.file("single"), "x");
    EXPECT_TRUE(removeAll(dir.file("single")) && removeAll(dir.file("missing")));
    EXPECT_EQ(Names{"outside"}, listDir(dir.path()));
    EXPECT_EQ("keep", readFile(outside + "/keep"));
    EXPECT_EQ(fds, openFds());
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// An unprivileged caller cannot unlink in a read-only directory: the first failure is reported
// with its own errno and full path, logged once, and everything else that can go, goes.
TEST_F(PathFiles, RemoveAllReportsTheFirstFailureAndGoesOn) {
    std::string root = dir.file("tree"), unlistable = dir.file("unlistable");
    std::string locked = below(root, 25) + "/locked";
    makeChain(root, 30, "/etc/hostname");
    makeDir(locked, 0777);
    writeFile(locked + "/stuck", "x", 0666);
    ASSERT_EQ(0, chmod(locked.c_str(), 0555));
    // A directory that cannot be listed: its file is never tried, only its rmdir fails.
    makeDir(unlistable, 0777);
    makeDir(unlistable + "/sub", 0777);
    writeFile(unlistable + "/sub/f", "x", 0666);
    ASSERT_EQ(0, chmod((unlistable + "/sub").c_str(), 0333));
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        SyslogCapture childLog{kSource};
        CHILD_CHECK(!removeAll(root) && errno == EACCES);
        CHILD_CHECK_EQ(1, childLog.err("unlink " + locked + "/stuck failed. Permission denied"));
        CHILD_CHECK_EQ(size_t(1), childLog.size());
        // A directory left non-empty is reported as EACCES.
        clearCapturedLines();
        CHILD_CHECK(!removeAll(unlistable) && errno == EACCES);
        CHILD_CHECK_EQ(1, childLog.err("rmdir " + unlistable + "/sub failed. <any>"));
        CHILD_CHECK_EQ(size_t(1), childLog.size());
    });
    for (int depth = 0; depth < 25; ++depth) EXPECT_EQ(Names{"d"}, listDir(below(root, depth)));
    EXPECT_EQ(Names{"locked"}, listDir(below(root, 25)));
    EXPECT_EQ(Names{"stuck"}, listDir(locked));
}

// Other file systems mounted inside the tree are left alone, mount points included, and so is a
// directory of the same file system bound there (its st_dev is the tree's own).
TEST_F(PathFiles, RemoveAllStaysOnItsFileSystem) {
    std::string root = dir.file("tree"), elsewhere = dir.file("elsewhere");
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [root, elsewhere] {
        SyslogCapture childLog{kSource};
        for (const std::string &d :
             {root, root + "/sub", root + "/sub/mnt", elsewhere, root + "/sub/bound"}) {
            makeDir(d);
        }
        CHILD_CHECK(mount("tmpfs", (root + "/sub/mnt").c_str(), "tmpfs", 0, nullptr) == 0);
        writeFile(root + "/sub/mnt/inside", "mounted", 0644);
        writeFile(elsewhere + "/precious", "kept", 0644);
        CHILD_CHECK(mount(elsewhere.c_str(), (root + "/sub/bound").c_str(), nullptr, MS_BIND,
                          nullptr) == 0);
        writeFile(root + "/source", "bound", 0644);
        writeFile(root + "/target", "", 0644);
        CHILD_CHECK(mount((root + "/source").c_str(), (root + "/target").c_str(), nullptr, MS_BIND,
                          nullptr) == 0);
        writeFile(root + "/sub/plain", "x", 0644);

        CHILD_CHECK(!removeAll(root) && errno == EACCES);
        CHILD_CHECK_EQ(std::string("mounted"), readFile(root + "/sub/mnt/inside"));
        CHILD_CHECK_EQ(std::string("bound"), readFile(root + "/target"));
        CHILD_CHECK_EQ(std::string("kept"), readFile(elsewhere + "/precious"));
        CHILD_CHECK(!exists(root + "/sub/plain") && !exists(root + "/source"));
        CHILD_CHECK_EQ(1, childLog.err("rmdir " + root + "/sub failed. Directory not empty"));
        CHILD_CHECK_EQ(size_t(1), childLog.size());
    });
}

TEST_F(PathFiles, RenameOverAFileTakesItsModeAndOwner) {
    writeFile(dir.file("prog"), "old", 0755);
    ASSERT_EQ(0, chmod(dir.file("prog").c_str(), 04755));
    writeFile(dir.file("prog.new"), "new", 0600);
    EXPECT_TRUE(Path::renameWithMode(dir.file("prog.new"), dir.file("prog")));
    EXPECT_EQ(0755, fileMode(dir.file("prog")));  // set-id bits are not taken over
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to give files to another user";
    std::string dst = dir.file("config"), src = dir.file("config.tmp");
    writeFile(dst, "old", 0600);
    ASSERT_EQ(0, chown(dst.c_str(), 65534, 65534));
    writeFile(src, "new", 0644);
    EXPECT_TRUE(Path::renameWithMode(src, dst));
    struct stat st;
    ASSERT_EQ(0, lstat(dst.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_TRUE(st.st_uid == 65534 && st.st_gid == 65534);
    EXPECT_EQ("new", readFile(dst));
    EXPECT_EQ((Names{"config", "prog"}), listDir(dir.path()));
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// An unprivileged writer cannot take over another user's ownership: it fails before the rename,
// so the old file stays as it was. A refused chmod counts as success only on FAT and foreign
// file systems.
TEST_F(PathFiles, UnprivilegedRenameFailures) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to set up files of two users";
    std::string dst = dir.file("config"), src = dir.file("config.tmp");
    writeFile(dst, "old", 0644);
    writeFile(src, "new", 0600);
    ASSERT_EQ(0, chown(src.c_str(), 65534, 65534));
    const std::pair<int, bool> fsTypes[] = {
        {TELO_FS_FAT, true}, {TELO_FS_FOREIGN, true}, {TELO_FS_EXT4, false}};
    for (auto fs : fsTypes) writeFile(dir.file("root" + std::to_string(fs.first)), "x", 0600);
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        SyslogCapture childLog{kSource};
        CHILD_CHECK(!Path::renameWithMode(src, dst) && errno == EPERM);
        CHILD_CHECK_EQ(1, childLog.err("chown failed Operation not permitted, [" + dst + "]"));
        for (auto [fsType, accepted] : fsTypes) {
            fakeplatform::outcomes().fsType = fsType;
            std::string from = dir.file("root" + std::to_string(fsType));
            CHILD_CHECK_EQ(accepted, Path::renameWithMode(from, from + ".new"));
        }
        CHILD_CHECK_EQ(EPERM, errno);
        CHILD_CHECK_EQ(3, fakeplatform::calls("TELOGetFSType"));
        CHILD_CHECK_EQ(1, childLog.err("chmod failed Operation not permitted, [<any>.new]"));
        CHILD_CHECK_EQ(size_t(2), childLog.size());
    });
    EXPECT_EQ("old", readFile(dst));
    EXPECT_EQ(0644, fileMode(dst));
    EXPECT_EQ("new", readFile(src));
    for (auto fs : fsTypes)
        EXPECT_TRUE(exists(dir.file("root" + std::to_string(fs.first) + ".new")));
}

// A new name takes the umask's mode; so does a link's name, which is replaced, not followed.
TEST_F(PathFiles, NewNamesFollowTheUmask) {
    writeFile(dir.file("target"), "target", 0600);
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("link").c_str()));
    EXPECT_CHILD_OK([&] {
        umask(022);
        writeFile(dir.file("f.tmp"), "x", 0600);
        writeFile(dir.file("new"), "new", 0600);
        makeDir(dir.file("d.tmp"), 0700);
        CHILD_CHECK(Path::renameWithMode(dir.file("f.tmp"), dir.file("f")));
        CHILD_CHECK(Path::renameWithMode(dir.file("d.tmp"), dir.file("d")));
        CHILD_CHECK(Path::renameWithMode(dir.file("new"), dir.file("link")));
        CHILD_CHECK(fileMode(dir.file("f")) == 0644 && fileMode(dir.file("d")) == 0755);
        CHILD_CHECK(fileMode(dir.file("link")) == 0644 && fileMode(dir.file("target")) == 0600);
        CHILD_CHECK_EQ(std::string("target"), readFile(dir.file("target")));
        umask(077);
        writeFile(dir.file("g.tmp"), "y", 0644);
        CHILD_CHECK(Path::renameWithMode(dir.file("g.tmp"), dir.file("g")));
        CHILD_CHECK_EQ(0600, fileMode(dir.file("g")));
        // A link keeps its own mode (a chmod would follow it to nothing).
        CHILD_CHECK(symlink("/nowhere", dir.file("l.tmp").c_str()) == 0);
        CHILD_CHECK(Path::renameWithMode(dir.file("l.tmp"), dir.file("l")));
    });
}

TEST_F(PathFiles, RenameFailuresLeaveTheOldFile) {
    std::string dst = dir.file("config");
    writeFile(dst, "old", 0600);
    makeDir(dir.file("adir"), 0700);
    // A missing source, or a directory, cannot replace a file.
    EXPECT_FALSE(Path::renameWithMode(dir.file("missing"), dst));
    EXPECT_EQ(1, log.err("rename failed, No such file or directory [" + dst + "]")) << log.dump();
    EXPECT_FALSE(Path::renameWithMode(dir.file("adir"), dst));
    EXPECT_EQ(1, log.err("rename failed, Not a directory [" + dst + "]"));
    EXPECT_EQ("old", readFile(dst));
    EXPECT_EQ(0700, fileMode(dir.file("adir")));
    // Missing source to a new name: nothing appears.
    EXPECT_FALSE(Path::renameWithMode(dir.file("missing"), dir.file("new")));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1, log.err("rename failed No such file or directory, [" + dir.file("new") + "]"));
    // lstat of dst failing other than ENOENT: false without a line.
    EXPECT_FALSE(Path::renameWithMode(dst, dst + "/under"));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(3u, log.size());
    EXPECT_EQ((Names{"adir", "config"}), listDir(dir.path()));
}

TEST_F(PathFiles, RenameWithPlatformAclsCopiesThemOrFails) {
    fakeplatform::outcomes().aclSupport = 1;
    std::string dst = dir.file("config");
    writeFile(dst, "old", 0600);
    writeFile(dir.file("a.tmp"), "new", 0644);
    EXPECT_TRUE(Path::renameWithMode(dir.file("a.tmp"), dst));
    EXPECT_TRUE(fakeplatform::calls("TELOACLCopy") == 1 &&
                fakeplatform::calls("TELOACLArchiveCopy") == 1);
    EXPECT_EQ(0644, fileMode(dst));  // permission bits are the ACL's business here

    writeFile(dir.file("b.tmp"), "newer", 0644);
    fakeplatform::setFail("TELOACLArchiveCopy");
    EXPECT_FALSE(Path::renameWithMode(dir.file("b.tmp"), dst));
    EXPECT_EQ("new", readFile(dst));
    EXPECT_EQ(1, log.err("Failed to copy ACL from [" + dst + "] to [" + dir.file("b.tmp") + "]"));

    // A new name with ACLs resets inheritance instead of applying the umask.
    EXPECT_TRUE(Path::renameWithMode(dir.file("b.tmp"), dir.file("fresh")));
    EXPECT_EQ(1, fakeplatform::calls("TELOACLResetInherit"));
    writeFile(dir.file("c.tmp"), "x", 0644);
    fakeplatform::setFail("TELOACLResetInherit");
    EXPECT_FALSE(Path::renameWithMode(dir.file("c.tmp"), dir.file("fresh2")));
    EXPECT_TRUE(exists(dir.file("fresh2")));
    EXPECT_EQ(1, log.err("reset acl inherit failed"));
}
