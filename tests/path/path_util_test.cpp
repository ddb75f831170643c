// Path algebra, the IPC tree under /tmp/telobackup (always in a child with a private /tmp, so the
// machine's real tree is never touched), and removeAll and renameWithMode on real trees, with
// platform outcomes (ACLs, file-system types) from the fake platform.
#include "telobackup/path/path_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "internal/safe_open.h"
#include "internal/test_hook.h"
#include "internal/unique_fd.h"
#include "support/attacker.h"
#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"

using TELO::Backup::ConfigPath;
using TELO::Backup::Path;
using TELO::Backup::removeAll;
using TELO::Backup::internal::HookPoint;
using TELO::Backup::internal::openBeneathByWalk;
using TELO::Backup::internal::testHook;
using TELO::Backup::internal::UniqueFd;
using namespace testsupport;
using Parts = std::vector<std::string>;

namespace {

const ChildOptions kPrivateTmp{.privateTmp = true};
constexpr char kSource[] = "path/path_util";

}  // namespace

// Each row: an operation, its arguments and its result, the rule and its boundary. The fuzzer
// checks that common is symmetric, relative a tail of its path, and token agrees with split.
TEST(PathAlgebra, JoinCommonRelativeAndSplit) {
    using Binary = std::string (*)(const std::string &, const std::string &);
    const Binary join = Path::join, common = Path::common, relative = Path::relative;
    const struct {
        Binary op;
        const char *a, *b, *expected;
    } cases[] = {
        // clang-format off
        {join, "a//", "//b//c", "a/b//c"}, {join, "///", "", "/"}, {join, "", "/x", "x"},
        {common, "/a/b/c", "/a/b/d", "/a/b"}, {common, "/a/b", "/a/bc", "/a"},
        {common, "/x", "/y", "/"}, {relative, "/a/b/c", "/a///", "b/c"},
        {relative, "/a/bc", "/a/b", ""}, {relative, "/x/y", "/", "x/y"},
        // clang-format on
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.expected, c.op(c.a, c.b)) << c.a << " " << c.b;
    }
    Parts parts{"stale"};
    EXPECT_TRUE(Path::split("/a//b/", parts));
    EXPECT_EQ((Parts{"/", "a", "", "b/"}), parts);
}

// Each row: path, basename, dirname, share name, path relative to the share.
TEST(PathAlgebra, BasenameDirnameAndShareName) {
    const std::string cases[][5] = {
        {"/photos/2024/", "2024", "/photos", "photos", "2024/"},
        {"/", "/", "/", "", ""},
        {"a/b", "b", "a", "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        EXPECT_EQ(c[1], Path::basename(c[0]));
        EXPECT_EQ(c[2], Path::dirname(c[0]));
        EXPECT_EQ(c[3], ConfigPath::shareName(c[0]));
        EXPECT_EQ(c[4], ConfigPath::shareRelativePath(c[0]));
    }
}

// ---- The IPC tree ----------------------------------------------------------------------------

TEST(IpcTree, ExactModesLockFilesAndBadNames) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        // "." and ".." name the tree itself and /tmp: forcing a mode there would reach outside
        // the sub-directories the call is for.
        CHILD_CHECK(chmod("/tmp", 01777) == 0);
        for (const char *name : {"a/b", ".."}) {
            errno = 0;
            CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath(name, 0700));
            CHILD_CHECK_EQ(EINVAL, errno);
        }
        CHILD_CHECK_EQ(01777, fileMode("/tmp"));
        CHILD_CHECK(!exists("/tmp/telobackup"));
        // Exact modes whatever the umask, also over existing directories of other modes.
        umask(077);
        for (int mode : {0770, 0700}) {
            CHILD_CHECK_EQ(std::string("/tmp/telobackup/x"), Path::createIpcTempPath("x", mode));
            CHILD_CHECK_EQ(0755, fileMode("/tmp/telobackup"));
            CHILD_CHECK_EQ(mode, fileMode("/tmp/telobackup/x"));
            CHILD_CHECK(chmod("/tmp/telobackup", 0700) == 0);
        }
        UniqueFd fd(Path::createIpcLockFile("token")), other(Path::createIpcLockFile("token"));
        CHILD_CHECK((fcntl(fd.get(), F_GETFD) & FD_CLOEXEC) != 0);
        CHILD_CHECK_EQ(0770, fileMode("/tmp/telobackup/lock"));
        CHILD_CHECK_EQ(0666, fileMode("/tmp/telobackup/lock/token"));
        // Each call opens the file anew, so that flock excludes a second descriptor.
        CHILD_CHECK(flock(fd.get(), LOCK_EX | LOCK_NB) == 0);
        CHILD_CHECK(flock(other.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK);
    });
}

// A link planted at the tree (the lock directory is opened the same way) or at a lock file is never
// followed: the call fails and the target is not changed.
TEST(IpcTree, PlantedLinksAreNeverFollowed) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        CHILD_CHECK(mkdir("/tmp/target", 0700) == 0);
        writeFile("/tmp/victim", "precious", 0600);
        const std::string before = describeTree("/tmp/target") + describeTree("/tmp/victim");
        CHILD_CHECK(symlink("/tmp/target", "/tmp/telobackup") == 0);
        CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath("x", 0777));
        CHILD_CHECK(errno == ELOOP || errno == ENOTDIR);
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("t"));

        CHILD_CHECK(unlink("/tmp/telobackup") == 0);
        CHILD_CHECK(Path::createIpcTempPath("lock", 0770) == "/tmp/telobackup/lock");
        CHILD_CHECK(symlink("/tmp/victim", "/tmp/telobackup/lock/t") == 0);
        errno = 0;
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("t"));
        CHILD_CHECK_EQ(ELOOP, errno);
        CHILD_CHECK_EQ(before, describeTree("/tmp/target") + describeTree("/tmp/victim"));
    });
}

// A member of the lock directory's group plants a link to a root-only directory there, and a
// lock name given to root climbs out of the tree: root's lock files never land outside, nothing
// outside is created or chmodded. Names with "/" that stay inside work. The walk used where
// openat2 is missing confines the same names the same way.
TEST(IpcTree, LockNamesStayBeneathTheLockDirectory) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to share the lock directory with a group";
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        makeDir("/tmp/victims", 0700);
        writeFile("/tmp/victims/file", "precious", 0600);
        writeFile("/tmp/victim", "precious", 0600);
        const std::string before = describeTree("/tmp/victims") + describeTree("/tmp/victim");
        const std::string lockDir = Path::createIpcTempPath("lock", 0770);
        CHILD_CHECK(chown(lockDir.c_str(), 0, 65534) == 0);
        Attacker attacker({[] { return symlink("/tmp/victims", "/tmp/telobackup/lock/app") == 0; },
                           [] { return mkfifo("/tmp/telobackup/lock/fifo", 0666) == 0; }});
        CHILD_CHECK(attacker.perform(0) && attacker.perform(1));
        // Where others may add entries, what they put there must be a regular file.
        errno = 0;
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("fifo"));
        CHILD_CHECK_EQ(EINVAL, errno);
        makeDir(lockDir + "/sub", 0755);
        UniqueFd dirFd(open(lockDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        // Each row: a lock name and the errno of both ways to open it, 0 when they do.
        const std::pair<const char *, int> names[] = {
            // clang-format off
            {"app/new", ELOOP}, {"/tmp/victim", EXDEV}, {"../../created", EXDEV}, {"sub/../t", 0},
            // clang-format on
        };
        auto outcome = [](int fd) { return fd < 0 ? errno : close(fd); };
        for (auto [name, expected] : names) {
            errno = 0;
            CHILD_CHECK_EQ(expected, outcome(Path::createIpcLockFile(name)));
            errno = 0;
            int walked = openBeneathByWalk(dirFd.get(), name, O_RDWR | O_CREAT, 0666);
            CHILD_CHECK_EQ(expected, outcome(walked));
        }
        CHILD_CHECK_EQ(before, describeTree("/tmp/victims") + describeTree("/tmp/victim"));
        CHILD_CHECK(!exists("/tmp/created"));
        CHILD_CHECK_EQ(0666, fileMode(lockDir + "/t"));
    });
}

namespace {

// Opens the lock file "t", which must be the file the path names now: a process that locks
// another (in a tree since removed) would not exclude the processes that lock this one.
int openNamedLockFile() {
    int fd = Path::createIpcLockFile("t");
    struct stat held, named;
    CHILD_CHECK(fstat(fd, &held) == 0 && stat("/tmp/telobackup/lock/t", &named) == 0);
    CHILD_CHECK(held.st_dev == named.st_dev && held.st_ino == named.st_ino);
    return fd;
}

}  // namespace

// A process keeps one descriptor of the lock directory it validated between calls. When the tree
// is moved away and made anew, the next call still opens the file the path names.
TEST(IpcTree, ReplacedTreeStillLocksTheNamedFile) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        const std::set<int> before = openFds();
        close(openNamedLockFile());
        std::set<int> held = openFds();
        for (int fd : before) held.erase(fd);
        CHILD_CHECK_EQ(size_t(1), held.size());
        CHILD_CHECK(rename("/tmp/telobackup", "/tmp/moved") == 0);
        makeDir("/tmp/telobackup", 0755);
        makeDir("/tmp/telobackup/lock", 0770);
        close(openNamedLockFile());
        CHILD_CHECK(chmod("/tmp/telobackup/lock", 0777) == 0);
        close(openNamedLockFile());
        CHILD_CHECK_EQ(0770, fileMode("/tmp/telobackup/lock"));
        // Closed behind the library's back, and the number taken by another file.
        CHILD_CHECK(close(*held.begin()) == 0);
        UniqueFd taken(open("/tmp/telobackup/taken", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        CHILD_CHECK_EQ(*held.begin(), taken.get());
        close(openNamedLockFile());
        CHILD_CHECK(write(taken.get(), "x", 1) == 1);

        if (!canChangeOwner()) return;
        CHILD_CHECK(removeAll("/tmp/telobackup"));
        Attacker attacker({[] {
            return mkdir("/tmp/telobackup", 0755) == 0 && mkdir("/tmp/telobackup/lock", 0770) == 0;
        }});
        CHILD_CHECK(attacker.perform(0));
        errno = 0;
        CHILD_CHECK_EQ(-1, Path::createIpcLockFile("t"));
        CHILD_CHECK_EQ(EPERM, errno);
        CHILD_CHECK(listDir("/tmp/telobackup/lock").empty());
    });
}

// Another user's tree or sub-directory is refused and left as it is. An unprivileged process can
// use a tree that root made, as long as no mode must change.
TEST(IpcTree, ForeignEntriesAreRefusedAndRootsTreeIsShared) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to plant another user's directory";
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        CHILD_CHECK(mkdir("/tmp/telobackup", 0777) == 0 && chmod("/tmp/telobackup", 0777) == 0);
        CHILD_CHECK(chown("/tmp/telobackup", 65534, 65534) == 0);
        errno = 0;
        CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath("x", 0700));
        CHILD_CHECK_EQ(EPERM, errno);
        CHILD_CHECK_EQ(0777, fileMode("/tmp/telobackup"));
        CHILD_CHECK(!exists("/tmp/telobackup/x"));
        CHILD_CHECK(chown("/tmp/telobackup", 0, 0) == 0 && mkdir("/tmp/telobackup/x", 0777) == 0);
        CHILD_CHECK(chown("/tmp/telobackup/x", 65534, 65534) == 0);
        const std::string planted = describeTree("/tmp/telobackup/x");
        CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath("x", 0700));
        CHILD_CHECK_EQ(planted, describeTree("/tmp/telobackup/x"));

        CHILD_CHECK(Path::createIpcTempPath("shared", 0777) == "/tmp/telobackup/shared");
        ChildResult user = runInChild(ChildOptions{.dropPrivileges = true}, [] {
            CHILD_CHECK_EQ(std::string("/tmp/telobackup/shared"),
                           Path::createIpcTempPath("shared", 0777));
            CHILD_CHECK_EQ(std::string(), Path::createIpcTempPath("shared", 0700));
        });
        CHILD_CHECK_EQ(std::string(), user.message);
    });
}

// ---- Removing and renaming files --------------------------------------------------------------

namespace {

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

// Deeper than the walk's descriptor budget, so levels are given up and reached again.
TEST_F(PathFiles, RemoveAllRemovesEveryLevelButNoLinkTarget) {
    std::string outside = dir.file("outside");
    makeDir(outside);
    writeFile(outside + "/keep", "keep");
    const std::string before = describeTree(outside);
    const std::set<int> fds = openFds();
    makeChain(dir.file("tree"), 30, outside);
    writeFile(dir.file("single"), "x");
    for (const char *name : {"tree", "single", "missing"}) EXPECT_TRUE(removeAll(dir.file(name)));
    EXPECT_EQ(Parts{"outside"}, listDir(dir.path()));
    EXPECT_EQ(before, describeTree(outside));
    EXPECT_EQ(fds, openFds());
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// An unprivileged caller cannot unlink in a read-only directory: the first failure is reported
// with its own errno and full path, logged once, and everything else that can go, goes.
TEST_F(PathFiles, RemoveAllReportsTheFirstFailureAndGoesOn) {
    std::string root = dir.file("tree"), locked = below(root, 25) + "/locked";
    makeChain(root, 30, "/etc/hostname");
    makeDir(locked, 0777);
    writeFile(locked + "/stuck", "x", 0666);
    ASSERT_EQ(0, chmod(locked.c_str(), 0555));
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        SyslogCapture childLog{kSource};
        errno = 0;
        CHILD_CHECK(!removeAll(root));
        CHILD_CHECK_EQ(EACCES, errno);
        CHILD_CHECK_EQ(1, childLog.err("unlink " + locked + "/stuck failed. Permission denied"));
        CHILD_CHECK_EQ(size_t(1), childLog.size());
    });
    for (int depth = 0; depth < 25; ++depth) EXPECT_EQ(Parts{"d"}, listDir(below(root, depth)));
    EXPECT_EQ(Parts{"stuck"}, listDir(locked));
}

// Other file systems mounted inside the tree are left alone, mount points included, and so is a
// directory of the same file system bound there (its st_dev is the tree's own).
TEST_F(PathFiles, RemoveAllStaysOnItsFileSystem) {
    std::string root = dir.file("tree"), elsewhere = dir.file("elsewhere");
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [root, elsewhere] {
        SyslogCapture childLog{kSource};
        for (const std::string &d : {root, root + "/mnt", elsewhere, root + "/bound"}) makeDir(d);
        CHILD_CHECK(mount("tmpfs", (root + "/mnt").c_str(), "tmpfs", 0, nullptr) == 0);
        writeFile(root + "/mnt/inside", "mounted", 0644);
        writeFile(elsewhere + "/precious", "kept", 0644);
        const std::string bound = root + "/bound";
        CHILD_CHECK(mount(elsewhere.c_str(), bound.c_str(), nullptr, MS_BIND, nullptr) == 0);
        errno = 0;
        CHILD_CHECK(!removeAll(root));
        CHILD_CHECK_EQ(EACCES, errno);
        CHILD_CHECK_EQ(std::string("mounted"), readFile(root + "/mnt/inside"));
        CHILD_CHECK_EQ(std::string("kept"), readFile(elsewhere + "/precious"));
        CHILD_CHECK_EQ(1, childLog.err("rmdir " + root + " failed. Directory not empty"));
    });
}

namespace {

Attacker *activeAttacker = nullptr;
bool attackDone = false;

// At the moment the remover opens level 29, the attacker performs its step 1.
void attackWhenDeep(HookPoint point, const char *, int depth) {
    if (point == HookPoint::kDirectoryOpened && depth == 29 && !attackDone) {
        attackDone = activeAttacker->perform(1);
    }
}

}  // namespace

// The owner of a tree that root removes swaps one of its directories for a link to a root-only
// directory of the same shape, while root is 29 levels down: once at a level the walk still
// holds open, once at one it gave up and must climb back to. Root removes the whole tree and
// nothing of the link's target.
TEST(RemoveAllAttack, SwappedDirectoryLeadsNowhere) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to remove another user's tree";
    for (int swapDepth : {22, 5}) {
        SCOPED_TRACE(swapDepth);
        EXPECT_CHILD_OK(kPrivateTmp, [swapDepth] {
            const std::string tree = "/tmp/restore", own = "/tmp/own";
            for (const std::string &d : {tree, own}) {
                makeDir(d, 0755);
                CHILD_CHECK(chown(d.c_str(), 65534, 65534) == 0);
            }
            makeDir("/tmp/victim", 0700);
            makeDeepTree("/tmp/victim", 30 - swapDepth);
            const std::string before = describeTree("/tmp/victim");
            const std::string swapped = below(tree, swapDepth);
            Attacker attacker({
                [tree] {
                    makeDeepTree(tree, 30);
                    return true;
                },
                [swapped, own] {
                    return rename(swapped.c_str(), (own + "/moved").c_str()) == 0 &&
                           symlink("/tmp/victim", swapped.c_str()) == 0;
                },
            });
            CHILD_CHECK(attacker.perform(0) && exists(below(tree, 30) + "/f"));
            activeAttacker = &attacker;
            testHook = attackWhenDeep;
            bool removed = removeAll(tree);
            testHook = nullptr;
            CHILD_CHECK(attackDone && removed && !exists(tree));
            CHILD_CHECK_EQ(before, describeTree("/tmp/victim"));
        });
    }
}

// An unprivileged writer cannot take over another user's ownership: it fails before the rename,
// so the old file stays as it was.
TEST_F(PathFiles, UnprivilegedRenameFailure) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to set up files of two users";
    std::string dst = dir.file("config"), src = dir.file("config.tmp");
    writeFile(dst, "old", 0644);
    writeFile(src, "new", 0600);
    ASSERT_EQ(0, chown(src.c_str(), 65534, 65534));
    const std::string before = describeTree(dst) + describeTree(src);
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        CHILD_CHECK(!Path::renameWithMode(src, dst));
        CHILD_CHECK_EQ(EPERM, errno);
    });
    EXPECT_EQ(before, describeTree(dst) + describeTree(src));
}

// The replacing file takes over the old one's owner, access ACL and user attributes, which an
// administrator set on the file and a rewrite must not drop.
TEST_F(PathFiles, RenameOverAFileKeepsOwnerAclAndAttributes) {
    const std::string dst = dir.file("tasks.conf"), src = dir.file("tasks.conf.new");
    const std::string acl = aclGrantingRead(34);
    writeFile(dst, "old", 0600);
    if (canChangeOwner()) {
        ASSERT_EQ(0, chown(dst.c_str(), 65534, 65534));
    }
    if (setxattr(dst.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) != 0 ||
        setxattr(dst.c_str(), "user.a", "1", 1, 0) != 0) {
        GTEST_SKIP() << "no ACLs or user attributes on " << dir.path() << ": " << strerror(errno);
    }
    writeFile(src, "new", 0644);
    EXPECT_TRUE(Path::renameWithMode(src, dst));
    std::string value;
    EXPECT_TRUE(attributeOf(dst, "system.posix_acl_access", value));
    EXPECT_EQ(acl, value);
    EXPECT_TRUE(attributeOf(dst, "user.a", value));
    EXPECT_EQ("1", value);
    struct stat st;
    ASSERT_EQ(0, lstat(dst.c_str(), &st));
    if (canChangeOwner()) {
        EXPECT_EQ(65534u, st.st_uid);
    }
    EXPECT_EQ((Parts{"tasks.conf"}), listDir(dir.path()));
}

// A new name takes the umask's mode; so does a link's name, which is replaced, not followed.
// A link keeps its own mode (a chmod would follow it to nothing). A replaced file's mode is taken
// over without its set-id bits.
TEST_F(PathFiles, ModesOfNewAndReplacedNames) {
    writeFile(dir.file("prog"), "old", 0755);
    ASSERT_EQ(0, chmod(dir.file("prog").c_str(), 04755));
    for (const char *name : {"prog.new", "target", "f.tmp", "new"}) {
        writeFile(dir.file(name), name, 0600);
    }
    const std::string target = describeTree(dir.file("target"));
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("link").c_str()));
    ASSERT_EQ(0, symlink("/nowhere", dir.file("l.tmp").c_str()));
    EXPECT_CHILD_OK([&] {
        umask(022);
        // Each row: source, destination, the destination's mode.
        const std::tuple<const char *, const char *, int> cases[] = {
            // clang-format off
            {"f.tmp", "f", 0644}, {"new", "link", 0644}, {"l.tmp", "l", 0777},
            {"prog.new", "prog", 0755},
            // clang-format on
        };
        for (const auto &[from, to, mode] : cases) {
            CHILD_CHECK(Path::renameWithMode(dir.file(from), dir.file(to)));
            CHILD_CHECK_EQ(mode, fileMode(dir.file(to)));
        }
        CHILD_CHECK_EQ(target, describeTree(dir.file("target")));
    });
}

// A failed rename or ACL copy leaves the old file as it was.
TEST_F(PathFiles, RenameFailuresLeaveTheOldFile) {
    std::string dst = dir.file("config");
    writeFile(dst, "old", 0600);
    makeDir(dir.file("adir"), 0700);
    writeFile(dir.file("a.tmp"), "new", 0644);
    const std::string before = describeTree(dir.path());
    EXPECT_FALSE(Path::renameWithMode(dir.file("adir"), dst));
    EXPECT_EQ(ENOTDIR, errno);
    fakeplatform::outcomes().aclSupport = 1;
    fakeplatform::setFail("TELOACLArchiveCopy");
    EXPECT_FALSE(Path::renameWithMode(dir.file("a.tmp"), dst));
    EXPECT_EQ(1, fakeplatform::calls("TELOACLCopy"));
    EXPECT_EQ(before, describeTree(dir.path()));
}

// A tree deeper than any descriptor budget is removed with a handful of descriptors, none left
// open and nothing logged. On a memory-backed /tmp where the machine allows one: deep trees are
// slow to make on disk.
TEST(RemoveAllDepth, TenThousandLevelsWithFewDescriptors) {
    TempDir dir;
    auto removeDeepTree = [](const std::string &root) {
        makeDir(root);
        makeDeepTree(root, 10000);
        SyslogCapture log{kSource};
        const std::set<int> fds = openFds();
        CHILD_CHECK(limitNewDescriptors(24));
        CHILD_CHECK(removeAll(root));
        CHILD_CHECK(!exists(root));
        CHILD_CHECK(fds == openFds());
        CHILD_CHECK_EQ(size_t(0), log.size());
    };
    ChildResult result = runInChild(kPrivateTmp, [&] { removeDeepTree("/tmp/deep"); });
    if (result.skipped) result = runInChild([&] { removeDeepTree(dir.file("deep")); });
    EXPECT_TRUE(result.ok()) << result.message;
}
