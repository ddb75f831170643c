// The mount table as libmount parses it, which of its mounts are hidden, and the file-system
// type of a path.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mount_table.h"
#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace telo_platform;
using namespace testsupport;

namespace {

std::vector<MountEntry> parse(const std::string &table) {
    std::vector<MountEntry> entries;
    EXPECT_TRUE(parseMountTable(table, entries));
    return entries;
}

std::string fields(const MountEntry &e) {
    return std::to_string(e.id) + " " + std::to_string(e.parentId) + " " + std::to_string(e.major) +
           ":" + std::to_string(e.minor) + " " + e.root + " " + e.mountPoint + " " + e.options +
           " " + e.fsType + " " + e.source + " " + e.superOptions;
}

}  // namespace

TEST(MountTable, ParsesMountinfoAndMountsForms) {
    std::vector<MountEntry> e = parse(
        "36 35 98:0 /mnt1 /mnt/with\\040blank rw,noatime master:1 shared:2 - ext3 /dev/root "
        "rw,errors=continue\n"
        "garbage line\n"
        "37 35 0:1 / /a\\134b\\011c/ rw - xfs s rw\n"
        "38 35 0:1 / relative rw - xfs s rw\n");
    ASSERT_EQ(2u, e.size());  // the garbage and the relative mount point are skipped
    EXPECT_EQ("36 35 98:0 /mnt1 /mnt/with blank rw,noatime ext3 /dev/root rw,errors=continue",
              fields(e[0]));
    EXPECT_EQ("/a\\b\tc", e[1].mountPoint);  // escapes decoded, the trailing slash dropped
    // The form of /proc/mounts: no ids, no devices.
    e = parse("/dev/sda1 / ext4 rw,relatime 0 0\n/dev/sdb /srv btrfs ro,subvol=/a 0 0\n");
    ASSERT_EQ(2u, e.size());
    EXPECT_EQ("0 0 0:0  /srv ro btrfs /dev/sdb subvol=/a", fields(e[1]));
}

// Which mounts are hidden is the findmnt differential's (volume_test); here the lookup of a path
// by component, and parent chains that loop (6 and 7), which must end.
TEST(MountTable, LongestVisibleComponentPrefixWins) {
    std::vector<MountEntry> entries = parse(
        "1 0 8:0 / / rw - ext4 a rw\n"
        "2 1 8:1 / /srv rw - ext4 b rw\n"
        "3 2 8:2 / /srv/data rw - ext4 c rw\n"
        "4 2 8:3 / /srv/database rw - ext4 d rw\n"
        "6 7 8:5 / /loop rw - ext4 f rw\n"
        "7 6 8:6 / /loop/back rw - ext4 g rw\n");
    std::vector<bool> hidden = hiddenMounts(entries);
    auto sourceFor = [&](const std::string &path) {
        const MountEntry *e = findMountFor(entries, hidden, path);
        return e != nullptr ? e->source : std::string("none");
    };
    EXPECT_EQ("a", sourceFor("/srvx"));
    EXPECT_EQ("b", sourceFor("/srv/dat"));
    EXPECT_EQ("d", sourceFor("/srv/database/x"));
    EXPECT_EQ("g", sourceFor("/loop/back/x"));
    EXPECT_EQ("none", sourceFor("relative"));
}

TEST(FsType, ReadsTheConfiguredMountTable) {
    TempDir dir;
    std::string table = dir.file("mountinfo");
    makeDir(dir.file("d"));
    ASSERT_EQ(0, symlink(dir.file("d").c_str(), dir.file("link").c_str()));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    writeFile(table, "20 1 8:1 / / rw - tmpfs tmpfs rw\n21 20 8:3 / " + dir.file("d") +
                         " rw shared:1 - vfat /dev/sdc rw\n");
    EXPECT_CHILD_OK([&] {
        // The type code of `path` under the mount table `from`, or "error <code> <errno>".
        auto type = [](const std::string &from, const std::string &path) {
            setenv("TELO_MOUNTINFO", from.c_str(), 1);
            int code = TELOGetFSType(path.c_str(), 0);
            if (code >= 0) return std::to_string(code);
            return "error " + std::to_string(TLIBCErrGet()) + " " + strerror(errno);
        };
        CHILD_CHECK_EQ(std::string("0"), type(table, dir.file("link")));  // vfat, link resolved
        CHILD_CHECK_EQ(std::string("7"), type(table, "/"));               // a type without a code
        CHILD_CHECK_EQ(std::string("error 2 No such file or directory"),
                       type(table, dir.file("missing")));
        CHILD_CHECK_EQ(std::string("error 4 No such file or directory"),
                       type(dir.file("no-table"), "/"));
        // Nothing but a regular file is read: a FIFO would block, a device never end.
        for (std::string bad : {dir.file("fifo"), std::string("/dev/zero"), dir.path()}) {
            std::string expected = bad == dir.path() ? "Is a directory" : "Invalid argument";
            CHILD_CHECK_EQ("error 7 " + expected, type(bad, "/"));
            CHILD_CHECK_EQ(0u,
                           std::string(TLIBCErrorGetDetail()).find("mount table " + bad + ": "));
        }
        writeFile(table, std::string(kMaxMountTableBytes + 1, '#'));
        CHILD_CHECK_EQ(std::string("error 7 File too large"), type(table, "/"));
        // A table that covers nothing.
        writeFile(table, "21 20 8:2 / /nowhere rw - btrfs /dev/sdb rw\n");
        CHILD_CHECK_EQ(std::string("error 7 No such file or directory"), type(table, "/"));
    });
}
