#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mount_table.h"
#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace telo_platform;
using namespace testsupport;

TEST(MountTable, ParsesMountInfoLines) {
    MountEntry e;
    ASSERT_TRUE(parseMountInfoLine(
        "36 35 98:0 /mnt1 /mnt/with\\040blank rw,noatime master:1 shared:2 - ext3 /dev/root "
        "rw,errors=continue",
        e));
    EXPECT_EQ("/mnt1", e.root);
    EXPECT_EQ("/mnt/with blank", e.mountPoint);
    EXPECT_EQ("ext3", e.fsType);
    EXPECT_EQ("/dev/root", e.source);
    EXPECT_EQ("rw,errors=continue", e.superOptions);
    EXPECT_EQ(98u, e.major);
    EXPECT_EQ(0u, e.minor);
    ASSERT_TRUE(parseMountInfoLine("1 0 0:1 / / rw - tmpfs none rw", e));
    EXPECT_EQ("/", e.mountPoint);
    // Escaped backslash and tab; an incomplete escape is kept as text.
    ASSERT_TRUE(parseMountInfoLine("1 0 0:1 / /a\\134b\\011c\\04 rw - xfs s rw", e));
    EXPECT_EQ("/a\\b\tc\\04", e.mountPoint);
    // Malformed lines.
    EXPECT_FALSE(parseMountInfoLine("", e));
    EXPECT_FALSE(parseMountInfoLine("1 0 0:1 / / rw ext4 /dev/x rw", e));
    EXPECT_FALSE(parseMountInfoLine("1 0 x / / rw - ext4 /dev/x rw", e));
    EXPECT_FALSE(parseMountInfoLine("1 0 0:1 / relative rw - ext4 /dev/x rw", e));
}

TEST(MountTable, LongestComponentPrefixWins) {
    std::vector<MountEntry> entries(5);
    const char *points[] = {"/", "/srv", "/srv/data", "/srv/database", "/srv/data"};
    for (size_t i = 0; i < entries.size(); ++i) {
        entries[i].mountPoint = points[i];
        entries[i].source = std::to_string(i);
    }
    auto sourceFor = [&](const std::string &path) {
        const MountEntry *e = findMountFor(entries, path);
        return e != nullptr ? e->source : std::string("none");
    };
    EXPECT_EQ("0", sourceFor("/"));
    EXPECT_EQ("0", sourceFor("/srvx"));
    EXPECT_EQ("1", sourceFor("/srv"));
    EXPECT_EQ("1", sourceFor("/srv/dat"));
    EXPECT_EQ("4", sourceFor("/srv/data"));  // stacked: the later mount hides the earlier
    EXPECT_EQ("4", sourceFor("/srv/data/x/y"));
    EXPECT_EQ("3", sourceFor("/srv/database/x"));
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
        // A table that covers nothing.
        writeFile(table, "21 20 8:2 / /nowhere rw - btrfs /dev/sdb rw\n");
        setenv("TELO_MOUNTINFO", table.c_str(), 1);
        CHILD_CHECK(TELOGetFSType("/", 0) < 0);
        CHILD_CHECK_EQ(unsigned(TELO_ERR_BAD_CONFIG), TLIBCErrGet());
        return std::string();
    });
}

TEST(FsType, MachinesOwnTableCoversTheRoot) {
    int code = TELOGetFSType("/", 0);
    EXPECT_GE(code, 0);
    EXPECT_LE(code, 7);
    EXPECT_EQ(TELO_FS_OTHER, TELOGetFSType("/proc", 0));
}
