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

// The mount points of the visible entries, in table order.
std::string visible(const std::string &table) {
    std::vector<MountEntry> entries = parse(table);
    std::vector<bool> hidden = hiddenMounts(entries);
    std::string points;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (!hidden[i]) points += entries[i].mountPoint + " ";
    }
    return points;
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
    EXPECT_EQ(36, e[0].id);
    EXPECT_EQ(35, e[0].parentId);
    EXPECT_EQ(98u, e[0].major);
    EXPECT_EQ("/mnt1", e[0].root);
    EXPECT_EQ("/mnt/with blank", e[0].mountPoint);
    EXPECT_EQ("rw,noatime", e[0].options);
    EXPECT_EQ("ext3", e[0].fsType);
    EXPECT_EQ("rw,errors=continue", e[0].superOptions);
    EXPECT_EQ("/a\\b\tc", e[1].mountPoint);  // escapes decoded, the trailing slash dropped
    // The form of /proc/mounts: no ids, no devices.
    e = parse("/dev/sda1 / ext4 rw,relatime 0 0\n/dev/sdb /srv btrfs ro,subvol=/a 0 0\n");
    ASSERT_EQ(2u, e.size());
    EXPECT_EQ(0, e[1].id);
    EXPECT_EQ("/dev/sdb", e[1].source);
    EXPECT_EQ("/srv", e[1].mountPoint);
    EXPECT_TRUE(parse("").empty());
}

// Hidden: stacked under a later mount, or below a mount point that a later mount covers.
TEST(MountTable, HiddenMounts) {
    // With ids the table is a tree, whatever its order: here "/" comes after its children, as
    // on machines whose root was switched at boot.
    EXPECT_EQ("/proc / /srv/data ", visible("21 26 0:20 / /proc rw - proc proc rw\n"
                                            "26 1 254:0 / / rw - ext4 /dev/vda rw\n"
                                            "30 26 8:1 / /srv/data rw - ext4 /dev/sdb1 rw\n"));
    // Stacked on one point: only the top one.
    EXPECT_EQ("/ /s ", visible("1 0 8:0 / / rw - ext4 /dev/sda rw\n"
                               "2 1 8:1 / /s rw - xfs /dev/sdb rw\n"
                               "3 2 8:2 / /s rw - ext4 /dev/sdc rw\n"));
    // A later mount on a parent hides what was mounted below it, and so does a mount stacked
    // on the parent of a mount.
    EXPECT_EQ("/ /srv /p ", visible("1 0 8:0 / / rw - ext4 /dev/sda rw\n"
                                    "2 1 8:1 / /srv/data rw - ext4 /dev/sdb rw\n"
                                    "3 1 8:2 / /srv rw - ext4 /dev/sdc rw\n"
                                    "4 1 8:3 / /p rw - ext4 /dev/sdd rw\n"
                                    "5 4 8:4 / /p/q rw - ext4 /dev/sde rw\n"
                                    "6 4 8:5 / /p rw - ext4 /dev/sdf rw\n"));
    // Without ids the order says what came later.
    EXPECT_EQ("/ /srv /srv/new ", visible("/dev/sda / ext4 rw 0 0\n/dev/sdb /srv/data ext4 rw 0 0\n"
                                          "/dev/sdc /srv ext4 rw 0 0\n"
                                          "/dev/sdd /srv/new ext4 rw 0 0\n"));
    // Parent chains that loop end somewhere.
    EXPECT_EQ("/a /b ", visible("1 2 8:0 / /a rw - ext4 /dev/sda rw\n"
                                "2 1 8:1 / /b rw - ext4 /dev/sdb rw\n"));
}

TEST(MountTable, LongestVisibleComponentPrefixWins) {
    std::vector<MountEntry> entries = parse(
        "1 0 8:0 / / rw - ext4 a rw\n"
        "2 1 8:1 / /srv rw - ext4 b rw\n"
        "3 2 8:2 / /srv/data rw - ext4 c rw\n"
        "4 2 8:3 / /srv/database rw - ext4 d rw\n"
        "5 3 8:4 / /srv/data rw - ext4 e rw\n");
    std::vector<bool> hidden = hiddenMounts(entries);
    auto sourceFor = [&](const std::string &path) {
        const MountEntry *e = findMountFor(entries, hidden, path);
        return e != nullptr ? e->source : std::string("none");
    };
    EXPECT_EQ("a", sourceFor("/"));
    EXPECT_EQ("a", sourceFor("/srvx"));
    EXPECT_EQ("b", sourceFor("/srv/dat"));
    EXPECT_EQ("e", sourceFor("/srv/data/x/y"));  // stacked: the top mount
    EXPECT_EQ("d", sourceFor("/srv/database/x"));
    EXPECT_EQ("none", sourceFor("relative"));
}

TEST(MountTable, TypeCodes) {
    struct {
        const char *type;
        int code;
    } cases[] = {{"vfat", 0},  {"msdos", 0}, {"ext2", 1},  {"ext3", 1},    {"ext4", 2},
                 {"btrfs", 3}, {"xfs", 4},   {"exfat", 5}, {"ntfs3", 5},   {"fuseblk", 5},
                 {"nfs4", 6},  {"cifs", 6},  {"tmpfs", 7}, {"overlay", 7}, {"", 7}};
    for (const auto &c : cases) EXPECT_EQ(c.code, fsTypeCode(c.type)) << c.type;
}

TEST(FsType, ReadsTheConfiguredMountTable) {
    TempDir dir;
    std::string a = dir.file("a"), b = dir.file("a/b");
    ASSERT_EQ(0, mkdir(a.c_str(), 0755));
    ASSERT_EQ(0, mkdir(b.c_str(), 0755));
    ASSERT_EQ(0, symlink(b.c_str(), dir.file("link").c_str()));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    std::string table = dir.file("mountinfo");
    writeFile(table,
              "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
              "garbage line\n"
              "21 20 8:2 / " +
                  a +
                  " rw - btrfs /dev/sdb rw\n"
                  "22 21 8:3 / " +
                  b + " rw shared:1 - vfat /dev/sdc rw\n");
    EXPECT_CHILD_OK([&] {
        setenv("TELO_MOUNTINFO", table.c_str(), 1);
        CHILD_CHECK_EQ(TELO_FS_BTRFS, TELOGetFSType(a.c_str(), 0));
        CHILD_CHECK_EQ(TELO_FS_FAT, TELOGetFSType(b.c_str(), 0));
        // Links are resolved before the lookup.
        CHILD_CHECK_EQ(TELO_FS_FAT, TELOGetFSType(dir.file("link").c_str(), 0));
        CHILD_CHECK_EQ(TELO_FS_EXT4, TELOGetFSType("/", 0));
        CHILD_CHECK(TELOGetFSType(dir.file("missing").c_str(), 0) < 0);
        CHILD_CHECK_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
        setenv("TELO_MOUNTINFO", dir.file("no-table").c_str(), 1);
        CHILD_CHECK(TELOGetFSType("/", 0) < 0);
        CHILD_CHECK_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
        CHILD_CHECK_EQ(ENOENT, errno);
        // Nothing but a regular file is read: a FIFO would block, a device never end.
        for (std::string bad : {dir.file("fifo"), std::string("/dev/zero"), dir.path()}) {
            setenv("TELO_MOUNTINFO", bad.c_str(), 1);
            CHILD_CHECK(TELOGetFSType("/", 0) < 0);
            CHILD_CHECK_EQ(unsigned(TELO_ERR_BAD_CONFIG), TLIBCErrGet());
            CHILD_CHECK(errno == EINVAL || errno == EISDIR);
            CHILD_CHECK_EQ(0u,
                           std::string(TLIBCErrorGetDetail()).find("mount table " + bad + ": "));
        }
        writeFile(table, std::string(kMaxMountTableBytes + 1, '#'));
        setenv("TELO_MOUNTINFO", table.c_str(), 1);
        CHILD_CHECK(TELOGetFSType("/", 0) < 0);
        CHILD_CHECK_EQ(EFBIG, errno);
        // A table that covers nothing.
        writeFile(table, "21 20 8:2 / /nowhere rw - btrfs /dev/sdb rw\n");
        CHILD_CHECK(TELOGetFSType("/", 0) < 0);
        CHILD_CHECK_EQ(unsigned(TELO_ERR_BAD_CONFIG), TLIBCErrGet());
        CHILD_CHECK_EQ(ENOENT, errno);
    });
}
