// The IPC tree under /tmp/telobackup. Everything runs in a child with a private /tmp, so the
// machine's real tree is never touched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::Path;
using namespace testsupport;

namespace {

const ChildOptions kPrivateTmp{.privateTmp = true};
constexpr char kSource[] = "path/path_util";

}  // namespace

// "." and ".." name the tree itself and /tmp: forcing a mode there would reach outside the
// sub-directories the call is for.
TEST(IpcTree, BadNamesAreRefusedWithoutTouchingTheDisk) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        SyslogCapture log{kSource};
        CHILD_CHECK(chmod("/tmp", 01777) == 0);
        for (const char *name : {"a/b", "", "..", "."}) {
            errno = 0;
            CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath(name, 0700));
            CHILD_CHECK_EQ(EINVAL, errno);
            CHILD_CHECK_EQ(1, log.err(std::string("bad ") + name + " name."));
        }
        CHILD_CHECK_EQ(size_t(4), log.size());
        CHILD_CHECK_EQ(01777, fileMode("/tmp"));
        CHILD_CHECK(!exists("/tmp/telobackup"));
    });
}

TEST(IpcTree, CreatesTreeWithExactModesWhateverTheUmask) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        umask(077);
        CHILD_CHECK_EQ(std::string("/tmp/telobackup/x"), Path::createIpcTempPath("x", 0770));
        CHILD_CHECK(fileMode("/tmp/telobackup") == 0755 && fileMode("/tmp/telobackup/x") == 0770);
        // Existing directories of other modes are brought to the requested ones.
        CHILD_CHECK(chmod("/tmp/telobackup", 0700) == 0 && chmod("/tmp/telobackup/x", 0755) == 0);
        CHILD_CHECK_EQ(std::string("/tmp/telobackup/x"), Path::createIpcTempPath("x", 0700));
        CHILD_CHECK(fileMode("/tmp/telobackup") == 0755 && fileMode("/tmp/telobackup/x") == 0700);
    });
}

TEST(IpcTree, LockFileIsSharedCloseOnExecAndLockable) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        umask(022);
        int fd = Path::createIpcLockFile("token");
        CHILD_CHECK(fd >= 0);
        CHILD_CHECK((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
        CHILD_CHECK((fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR);
        CHILD_CHECK_EQ(0770, fileMode("/tmp/telobackup/lock"));
        CHILD_CHECK_EQ(0666, fileMode("/tmp/telobackup/lock/token"));
        // A second descriptor of the same token is a distinct open file: flock excludes it.
        int other = Path::createIpcLockFile("token");
        CHILD_CHECK(other >= 0 && other != fd);
        CHILD_CHECK(flock(fd, LOCK_EX | LOCK_NB) == 0);
        CHILD_CHECK(flock(other, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK);
        close(fd);
        CHILD_CHECK(flock(other, LOCK_EX | LOCK_NB) == 0);
        close(other);
    });
}

// A link planted at the tree, at its lock directory or at a lock file is never followed: the call
// fails and the target is not changed.
TEST(IpcTree, PlantedLinksAreNeverFollowed) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        SyslogCapture log{kSource};
        CHILD_CHECK(mkdir("/tmp/target", 0700) == 0);
        CHILD_CHECK(symlink("/tmp/target", "/tmp/telobackup") == 0);
        CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath("x", 0777));
        CHILD_CHECK(errno == ELOOP || errno == ENOTDIR);
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("t"));
        CHILD_CHECK_EQ(2, log.err("chmod /tmp/telobackup path failed. <any>"));

        CHILD_CHECK(unlink("/tmp/telobackup") == 0 && mkdir("/tmp/telobackup", 0755) == 0);
        CHILD_CHECK(symlink("/tmp/target", "/tmp/telobackup/lock") == 0);
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("t"));
        CHILD_CHECK_EQ(1, log.err("chmod /tmp/telobackup/lock path failed. <any>"));
        CHILD_CHECK(fileMode("/tmp/target") == 0700 && listDir("/tmp/target").empty());

        writeFile("/tmp/victim", "precious", 0600);
        CHILD_CHECK(unlink("/tmp/telobackup/lock") == 0);
        CHILD_CHECK(Path::createIpcTempPath("lock", 0770) == "/tmp/telobackup/lock");
        CHILD_CHECK(symlink("/tmp/victim", "/tmp/telobackup/lock/t") == 0);
        CHILD_CHECK(symlink("/tmp/absent", "/tmp/telobackup/lock/dangling") == 0);
        CHILD_CHECK(Path::createIpcLockFile("t") == -1 && errno == ELOOP);
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("dangling"));
        CHILD_CHECK(!exists("/tmp/absent"));
        CHILD_CHECK_EQ(std::string("precious"), readFile("/tmp/victim"));
        CHILD_CHECK_EQ(0600, fileMode("/tmp/victim"));
        // Nor is a directory where a lock file should be.
        CHILD_CHECK(mkdir("/tmp/telobackup/lock/dir", 0700) == 0);
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("dir"));
    });
}

TEST(IpcTree, EntriesOfOtherUsersOrKindsAreRefused) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to plant another user's directory";
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        SyslogCapture log{kSource};
        CHILD_CHECK(mkdir("/tmp/telobackup", 0777) == 0 && chmod("/tmp/telobackup", 0777) == 0);
        CHILD_CHECK(chown("/tmp/telobackup", 65534, 65534) == 0);
        CHILD_CHECK(Path::createIpcTempPath("x", 0700).empty() && errno == EPERM);
        CHILD_CHECK_EQ(0777, fileMode("/tmp/telobackup"));
        CHILD_CHECK(!exists("/tmp/telobackup/x"));
        CHILD_CHECK_EQ(1, log.err("chmod /tmp/telobackup path failed. Operation not permitted"));
        // Another user's sub-directory inside our own tree.
        CHILD_CHECK(chown("/tmp/telobackup", 0, 0) == 0 && mkdir("/tmp/telobackup/x", 0777) == 0);
        CHILD_CHECK(chown("/tmp/telobackup/x", 65534, 65534) == 0);
        CHILD_CHECK(Path::createIpcTempPath("x", 0700).empty());
        struct stat st;
        CHILD_CHECK(lstat("/tmp/telobackup/x", &st) == 0 && st.st_uid == 65534);
        // A plain file where the tree should be.
        CHILD_CHECK(rmdir("/tmp/telobackup/x") == 0 && rmdir("/tmp/telobackup") == 0);
        writeFile("/tmp/telobackup", "file", 0644);
        CHILD_CHECK(Path::createIpcTempPath("x", 0700).empty() && errno == ENOTDIR);
        CHILD_CHECK_EQ(std::string("file"), readFile("/tmp/telobackup"));
    });
}

// An unprivileged process can use a tree that root made, as long as no mode must change.
TEST(IpcTree, RootOwnedTreeServesOtherUsers) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to make the tree as another user";
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        CHILD_CHECK(Path::createIpcTempPath("shared", 0777) == "/tmp/telobackup/shared");
        ChildResult inner = runInChild(
            [] {
                CHILD_CHECK_EQ(std::string("/tmp/telobackup/shared"),
                               Path::createIpcTempPath("shared", 0777));
                CHILD_CHECK(Path::createIpcTempPath("shared", 0700).empty() && errno == EPERM);
            },
            ChildOptions{.dropPrivileges = true});
        CHILD_CHECK_EQ(std::string(), inner.message);
    });
}
