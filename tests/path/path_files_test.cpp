// removeAll and renameWithMode on real trees; platform outcomes (ACLs, file-system types) come
// from the fake platform.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::Path;
using TELO::Backup::removeAll;
using namespace testsupport;

namespace {

class PathFiles : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
    TempDir dir;
    SyslogCapture log;
};

// A tree with nested directories, files, a link to a file outside and a dangling link.
void buildTree(const std::string &root, const std::string &outside) {
    ASSERT_EQ(0, mkdir(root.c_str(), 0755));
    ASSERT_EQ(0, mkdir((root + "/d1").c_str(), 0755));
    ASSERT_EQ(0, mkdir((root + "/d1/d2").c_str(), 0700));
    writeFile(root + "/f", "f");
    writeFile(root + "/d1/g", "g");
    writeFile(root + "/d1/d2/h", "h", 0400);
    ASSERT_EQ(0, symlink(outside.c_str(), (root + "/d1/link").c_str()));
    ASSERT_EQ(0, symlink("/nonexistent/target", (root + "/dangling").c_str()));
}

}  // namespace

TEST_F(PathFiles, RemoveAllRemovesTreeButNotLinkTargets) {
    std::string outside = dir.file("outside");
    ASSERT_EQ(0, mkdir(outside.c_str(), 0755));
    writeFile(outside + "/keep", "keep");
    buildTree(dir.file("tree"), outside);

    EXPECT_TRUE(removeAll(dir.file("tree")));
    EXPECT_EQ(std::vector<std::string>{"outside"}, listDir(dir.path()));
    EXPECT_EQ("keep", readFile(outside + "/keep"));
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(PathFiles, RemoveAllOfMissingPathOrSingleFile) {
    errno = 0;
    EXPECT_TRUE(removeAll(dir.file("missing")));
    writeFile(dir.file("single"), "x");
    EXPECT_TRUE(removeAll(dir.file("single")));
    EXPECT_FALSE(exists(dir.file("single")));
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// An unprivileged caller cannot unlink in a read-only directory: the first failure is reported
// with its own errno, logged once, and everything else that can go, goes.
TEST_F(PathFiles, RemoveAllReportsFirstFailureAndGoesOn) {
    std::string root = dir.file("tree");
    for (const std::string &d : {root, root + "/locked", root + "/open"}) {
        ASSERT_EQ(0, mkdir(d.c_str(), 0777));
        ASSERT_EQ(0, chmod(d.c_str(), 0777));
    }
    writeFile(root + "/locked/stuck", "x", 0666);
    writeFile(root + "/open/a", "a", 0666);
    writeFile(root + "/open/b", "b", 0666);
    writeFile(root + "/top", "t", 0666);
    ASSERT_EQ(0, chmod((root + "/locked").c_str(), 0555));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));

    EXPECT_CHILD_OK(
        [root] {
            SyslogCapture childLog;
            errno = 0;
            CHILD_CHECK(!removeAll(root));
            CHILD_CHECK_EQ(EACCES, errno);
            auto lines = childLog.lines();
            CHILD_CHECK_EQ(size_t(1), lines.size());
            CHILD_CHECK(matchesLogPattern("(<pid>) [err] path/path_util:<line> unlink " + root +
                                              "/locked/stuck failed. Permission denied",
                                          lines[0].text));
            CHILD_CHECK_EQ(LOG_ERR, lines[0].priority);
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
    EXPECT_EQ(std::vector<std::string>{"locked"}, listDir(root));
    EXPECT_EQ(std::vector<std::string>{"stuck"}, listDir(root + "/locked"));
}

// When the only failure is a directory that could not be emptied, EACCES is reported.
TEST_F(PathFiles, RemoveAllReportsNonEmptyDirectoryAsEacces) {
    std::string root = dir.file("tree");
    ASSERT_EQ(0, mkdir(root.c_str(), 0777));
    ASSERT_EQ(0, chmod(root.c_str(), 0777));
    ASSERT_EQ(0, mkdir((root + "/sub").c_str(), 0777));
    writeFile(root + "/sub/f", "x", 0666);
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    // The directory cannot be listed, so its file is never tried; only its rmdir fails.
    ASSERT_EQ(0, chmod((root + "/sub").c_str(), 0333));

    EXPECT_CHILD_OK(
        [root] {
            SyslogCapture childLog;
            CHILD_CHECK(!removeAll(root));
            CHILD_CHECK_EQ(EACCES, errno);
            CHILD_CHECK_EQ(1, childLog.count(LOG_ERR, "(<pid>) [err] path/path_util:<line> rmdir " +
                                                          root + "/sub failed. <any>"));
            CHILD_CHECK_EQ(size_t(1), childLog.size());
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
}

TEST_F(PathFiles, RenameOverExistingKeepsModeAndOwner) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to give files to another user";
    std::string dst = dir.file("config");
    std::string src = dir.file("config.tmp");
    writeFile(dst, "old", 0600);
    ASSERT_EQ(0, chown(dst.c_str(), 65534, 65534));
    writeFile(src, "new", 0644);

    EXPECT_TRUE(Path::renameWithMode(src, dst));
    struct stat st;
    ASSERT_EQ(0, lstat(dst.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_EQ(65534u, st.st_uid);
    EXPECT_EQ(65534u, st.st_gid);
    EXPECT_EQ("new", readFile(dst));
    EXPECT_FALSE(exists(src));
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(PathFiles, RenameOverExistingDropsSetIdBits) {
    std::string dst = dir.file("prog");
    std::string src = dir.file("prog.new");
    writeFile(dst, "old", 0755);
    ASSERT_EQ(0, chmod(dst.c_str(), 04755));
    writeFile(src, "new", 0600);
    EXPECT_TRUE(Path::renameWithMode(src, dst));
    EXPECT_EQ(0755, fileMode(dst));
}

// The attributes are on the new file before it becomes visible: a writer that dies right after
// the rename still leaves the old mode and owner.
TEST_F(PathFiles, RenameGivesAttributesBeforeTheFileIsVisible) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to give files to another user";
    std::string dst = dir.file("config");
    std::string src = dir.file("config.tmp");
    writeFile(dst, "old", 0640);
    ASSERT_EQ(0, chown(dst.c_str(), 65534, 65534));
    writeFile(src, "new", 0600);
    // Watch the name with a second descriptor: the inode that appears there must already carry
    // the attributes. Checking the source right before the rename is the same check, since the
    // rename moves the inode unchanged.
    struct stat before;
    ASSERT_EQ(0, stat(src.c_str(), &before));
    ASSERT_TRUE(Path::renameWithMode(src, dst));
    struct stat after;
    ASSERT_EQ(0, stat(dst.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(0640u, after.st_mode & 07777);
    EXPECT_EQ(65534u, after.st_uid);
}

// An unprivileged writer cannot take over another user's ownership: it fails before the rename
// and the old file stays as it was.
TEST_F(PathFiles, RenameThatCannotKeepOwnerLeavesOldFile) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to give files to another user";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    std::string dst = dir.file("config");
    std::string src = dir.file("config.tmp");
    writeFile(dst, "old", 0644);  // owned by root
    writeFile(src, "new", 0600);
    ASSERT_EQ(0, chown(src.c_str(), 65534, 65534));
    EXPECT_CHILD_OK(
        [src, dst] {
            SyslogCapture childLog;
            CHILD_CHECK(!Path::renameWithMode(src, dst));
            CHILD_CHECK_EQ(EPERM, errno);
            CHILD_CHECK_EQ(1, childLog.count(LOG_ERR,
                                             "(<pid>) [err] path/path_util:<line> chown "
                                             "failed Operation not permitted, [" +
                                                 dst + "]"));
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
    EXPECT_EQ("old", readFile(dst));
    EXPECT_EQ(0644, fileMode(dst));
    EXPECT_EQ("new", readFile(src));
}

TEST_F(PathFiles, RenameToNewNameFollowsUmask) {
    EXPECT_CHILD_OK([&] {
        umask(022);
        std::string src = dir.file("f.tmp"), dst = dir.file("f");
        writeFile(src, "x", 0600);
        CHILD_CHECK(Path::renameWithMode(src, dst));
        CHILD_CHECK_EQ(0644, fileMode(dst));
        std::string srcDir = dir.file("d.tmp"), dstDir = dir.file("d");
        CHILD_CHECK(mkdir(srcDir.c_str(), 0700) == 0);
        CHILD_CHECK(Path::renameWithMode(srcDir, dstDir));
        CHILD_CHECK_EQ(0755, fileMode(dstDir));
        umask(077);
        writeFile(src, "y", 0644);
        CHILD_CHECK(Path::renameWithMode(src, dir.file("g")));
        CHILD_CHECK_EQ(0600, fileMode(dir.file("g")));
        // A link keeps its own mode.
        CHILD_CHECK(symlink("/nowhere", dir.file("l.tmp").c_str()) == 0);
        CHILD_CHECK(Path::renameWithMode(dir.file("l.tmp"), dir.file("l")));
        return std::string();
    });
}

TEST_F(PathFiles, RenameFailuresLeaveTheOldFile) {
    std::string dst = dir.file("config");
    writeFile(dst, "old", 0600);
    // Missing source over an existing file.
    EXPECT_FALSE(Path::renameWithMode(dir.file("missing"), dst));
    EXPECT_EQ("old", readFile(dst));
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] path/path_util:<line> rename failed, No such "
                           "file or directory [" +
                               dst + "]"))
        << log.dump();
    // A directory cannot replace a file, and is left as it was.
    ASSERT_EQ(0, mkdir(dir.file("adir").c_str(), 0700));
    EXPECT_FALSE(Path::renameWithMode(dir.file("adir"), dst));
    EXPECT_EQ("old", readFile(dst));
    EXPECT_EQ(0700, fileMode(dir.file("adir")));
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] path/path_util:<line> rename failed, Not a "
                           "directory [" +
                               dst + "]"))
        << log.dump();
    // Missing source to a new name: the rename fails, nothing appears.
    EXPECT_FALSE(Path::renameWithMode(dir.file("missing"), dir.file("new")));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] path/path_util:<line> rename failed No such "
                           "file or directory, [" +
                               dir.file("new") + "]"));
    // lstat of dst failing other than ENOENT: false without a line.
    size_t before = log.size();
    EXPECT_FALSE(Path::renameWithMode(dst, dst + "/under"));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(before, log.size());
}

TEST_F(PathFiles, RenameWithPlatformAclsCopiesThemOrFails) {
    fakeplatform::outcomes().aclSupport = 1;
    std::string dst = dir.file("config");
    writeFile(dst, "old", 0600);
    writeFile(dir.file("a.tmp"), "new", 0644);
    EXPECT_TRUE(Path::renameWithMode(dir.file("a.tmp"), dst));
    EXPECT_EQ(1, fakeplatform::calls("TELOACLCopy"));
    EXPECT_EQ(1, fakeplatform::calls("TELOACLArchiveCopy"));
    // Permission bits are the ACL's business here: the new file keeps its own.
    EXPECT_EQ(0644, fileMode(dst));

    writeFile(dir.file("b.tmp"), "newer", 0644);
    fakeplatform::setFail("TELOACLArchiveCopy");
    EXPECT_FALSE(Path::renameWithMode(dir.file("b.tmp"), dst));
    EXPECT_EQ("new", readFile(dst));
    EXPECT_EQ(1,
              log.count(LOG_ERR, "(<pid>) [err] path/path_util:<line> Failed to copy ACL from [" +
                                     dst + "] to [" + dir.file("b.tmp") + "]"));

    // A new name with ACLs resets inheritance instead of applying the umask.
    EXPECT_TRUE(Path::renameWithMode(dir.file("b.tmp"), dir.file("fresh")));
    EXPECT_EQ(1, fakeplatform::calls("TELOACLResetInherit"));
    writeFile(dir.file("c.tmp"), "x", 0644);
    fakeplatform::setFail("TELOACLResetInherit");
    EXPECT_FALSE(Path::renameWithMode(dir.file("c.tmp"), dir.file("fresh2")));
    EXPECT_TRUE(exists(dir.file("fresh2")));
    EXPECT_EQ(1,
              log.count(LOG_ERR, "(<pid>) [err] path/path_util:<line> reset acl inherit failed"));
}

// chmod refused with EPERM counts as success only on FAT and foreign file systems.
TEST_F(PathFiles, RefusedChmodAcceptedOnFatAndForeignOnly) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to set up a file the caller does not own";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    for (int fsType : {TELO_FS_FAT, TELO_FS_FOREIGN, TELO_FS_EXT4}) {
        SCOPED_TRACE(fsType);
        fakeplatform::reset();
        fakeplatform::outcomes().fsType = fsType;
        std::string src = dir.file("src"), dst = dir.file("dst" + std::to_string(fsType));
        writeFile(src, "x", 0600);  // owned by root: the unprivileged mover cannot chmod it
        EXPECT_CHILD_OK(
            [src, dst, fsType] {
                SyslogCapture childLog;
                bool ok = Path::renameWithMode(src, dst);
                bool accepted = fsType == TELO_FS_FAT || fsType == TELO_FS_FOREIGN;
                CHILD_CHECK_EQ(accepted, ok);
                CHILD_CHECK_EQ(1, fakeplatform::calls("TELOGetFSType"));
                if (!accepted) {
                    CHILD_CHECK_EQ(EPERM, errno);
                    CHILD_CHECK_EQ(1, childLog.count(LOG_ERR,
                                                     "(<pid>) [err] path/path_util:<line> "
                                                     "chmod failed Operation not "
                                                     "permitted, [" +
                                                         dst + "]"));
                }
                return std::string();
            },
            ChildOptions{.dropPrivileges = true});
        EXPECT_TRUE(exists(dst));
    }
}

// Deeper than the walk's descriptor budget: levels below it are walked by path. Nothing stays,
// no descriptor leaks, and a failure deep down names the full path.
TEST_F(PathFiles, RemoveAllOfADeepTree) {
    auto openDescriptors = [] { return listDir("/proc/self/fd").size(); };
    size_t before = openDescriptors();
    std::string root = dir.file("deep");
    std::string level = root;
    for (int depth = 0; depth < 30; ++depth) {
        ASSERT_EQ(0, mkdir(level.c_str(), 0777)) << level;
        ASSERT_EQ(0, chmod(level.c_str(), 0777));
        writeFile(level + "/f", "x", 0666);
        ASSERT_EQ(0, symlink("/etc/hostname", (level + "/l").c_str()));
        level += "/d";
    }
    EXPECT_TRUE(removeAll(root));
    EXPECT_FALSE(exists(root));
    EXPECT_EQ(before, openDescriptors());

    // The same again with one read-only level 25 directories down.
    level = root;
    std::string locked;
    for (int depth = 0; depth < 30; ++depth) {
        ASSERT_EQ(0, mkdir(level.c_str(), 0777));
        ASSERT_EQ(0, chmod(level.c_str(), 0777));
        writeFile(level + "/f", "x", 0666);
        if (depth == 25) locked = level;
        level += "/d";
    }
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    ASSERT_EQ(0, chmod(locked.c_str(), 0555));
    EXPECT_CHILD_OK(
        [root, locked] {
            SyslogCapture childLog;
            CHILD_CHECK(!removeAll(root));
            CHILD_CHECK_EQ(EACCES, errno);
            CHILD_CHECK_EQ(size_t(1), childLog.size());
            // The read-only directory keeps its file and its emptied sub-directory; whichever
            // comes first is the one failure logged, with its full path.
            const std::string line = childLog.lines()[0].text;
            CHILD_CHECK(matchesLogPattern("(<pid>) [err] path/path_util:<line> unlink " + locked +
                                              "/f failed. Permission denied",
                                          line) ||
                        matchesLogPattern("(<pid>) [err] path/path_util:<line> rmdir " + locked +
                                              "/d failed. Permission denied",
                                          line));
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
    EXPECT_EQ((std::vector<std::string>{"d", "f"}), listDir(locked));
    EXPECT_TRUE(listDir(locked + "/d").empty());
}

// Other file systems mounted inside the tree are left alone, mount points included, and so is a
// directory of the same file system bound there (its st_dev is the tree's own).
TEST_F(PathFiles, RemoveAllStaysOnItsFileSystem) {
    std::string root = dir.file("tree"), elsewhere = dir.file("elsewhere");
    EXPECT_CHILD_OK(
        [root, elsewhere] {
            SyslogCapture childLog;
            CHILD_CHECK(mkdir(root.c_str(), 0755) == 0);
            CHILD_CHECK(mkdir((root + "/sub").c_str(), 0755) == 0);
            CHILD_CHECK(mkdir((root + "/sub/mnt").c_str(), 0755) == 0);
            CHILD_CHECK(mount("tmpfs", (root + "/sub/mnt").c_str(), "tmpfs", 0, nullptr) == 0);
            writeFile(root + "/sub/mnt/inside", "mounted", 0644);
            CHILD_CHECK(mkdir(elsewhere.c_str(), 0755) == 0);
            writeFile(elsewhere + "/precious", "kept", 0644);
            CHILD_CHECK(mkdir((root + "/sub/bound").c_str(), 0755) == 0);
            CHILD_CHECK(mount(elsewhere.c_str(), (root + "/sub/bound").c_str(), nullptr, MS_BIND,
                              nullptr) == 0);
            writeFile(root + "/source", "bound", 0644);
            writeFile(root + "/target", "", 0644);
            CHILD_CHECK(mount((root + "/source").c_str(), (root + "/target").c_str(), nullptr,
                              MS_BIND, nullptr) == 0);
            writeFile(root + "/sub/plain", "x", 0644);

            CHILD_CHECK(!removeAll(root));
            CHILD_CHECK_EQ(EACCES, errno);
            CHILD_CHECK_EQ(std::string("mounted"), readFile(root + "/sub/mnt/inside"));
            CHILD_CHECK_EQ(std::string("bound"), readFile(root + "/target"));
            CHILD_CHECK_EQ(std::string("kept"), readFile(elsewhere + "/precious"));
            CHILD_CHECK(!exists(root + "/sub/plain"));
            CHILD_CHECK(!exists(root + "/source"));
            CHILD_CHECK_EQ(size_t(1), childLog.size());
            CHILD_CHECK_EQ(
                1, childLog.count(LOG_ERR, "(<pid>) [err] path/path_util:<line> rmdir " + root +
                                               "/sub failed. Directory not empty"));
            umount((root + "/sub/bound").c_str());
            umount((root + "/target").c_str());
            umount((root + "/sub/mnt").c_str());
            return std::string();
        },
        ChildOptions{.privateMounts = true});
}

// A link is replaced, not followed, and its mode (0777) is not taken over.
TEST_F(PathFiles, RenameOverALinkUsesTheUmaskMode) {
    writeFile(dir.file("target"), "target", 0600);
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("link").c_str()));
    writeFile(dir.file("new"), "new", 0600);
    EXPECT_CHILD_OK([&] {
        umask(022);
        CHILD_CHECK(Path::renameWithMode(dir.file("new"), dir.file("link")));
        CHILD_CHECK_EQ(0644, fileMode(dir.file("link")));
        CHILD_CHECK_EQ(std::string("target"), readFile(dir.file("target")));
        CHILD_CHECK_EQ(0600, fileMode(dir.file("target")));
        return std::string();
    });
}
