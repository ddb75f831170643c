// Volumes of the generic server, read from a mount table fixture whose mount points are
// directories of the test's own tree (statvfs then measures the real file system under them).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace testsupport;

namespace {

struct Record {
    std::string path;
    int fsType;
    int usable;
    bool operator==(const Record &o) const {
        return path == o.path && fsType == o.fsType && usable == o.usable;
    }
};

std::vector<Record> enumerate(int location = TELO_VOL_LOCATION_DISK) {
    std::vector<Record> records;
    TELOVOLInfo *list = TELOMountVolAllEnum(0, location, 2);
    for (TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        records.push_back({v->volPath, v->fsType, v->usable});
        EXPECT_EQ(1, v->mounted);
        EXPECT_GT(v->freeBytes, 0u) << v->volPath;
    }
    TELOMountVolInfoFree(list);
    return records;
}

class Volumes : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *d :
             {"vol1", "vol1/sub", "vol2", "tmpfs", "img", "nfs", "stacked", "with space", "rw"}) {
            ASSERT_EQ(0, mkdir(dir.file(d).c_str(), 0755)) << d;
        }
        writeFile(dir.file("file"), "bound");
        std::string t = dir.path();
        std::string table = "20 1 8:1 / " + t +
                            "/vol1 rw,relatime - ext4 /dev/sdb1 rw\n"
                            "21 1 8:2 / " +
                            t +
                            "/vol2 rw shared:3 - btrfs /dev/sdc ro,space_cache\n"
                            "22 1 0:30 / " +
                            t +
                            "/tmpfs rw - tmpfs tmpfs rw\n"
                            "23 1 7:0 / " +
                            t +
                            "/img ro - squashfs /dev/loop0 ro\n"
                            "24 1 8:1 /etc/hosts " +
                            t +
                            "/file rw - ext4 /dev/sda1 rw\n"
                            "25 1 0:40 / " +
                            t +
                            "/nfs rw - nfs4 server:/export rw\n"
                            "26 1 8:3 / " +
                            t +
                            "/stacked rw - xfs /dev/sdd rw\n"
                            "27 26 8:4 / " +
                            t +
                            "/stacked rw - ext3 /dev/sde rw\n"
                            "28 1 8:5 / " +
                            t +
                            "/with\\040space rw - vfat /dev/sdf1 rw\n"
                            "29 1 8:6 / " +
                            t +
                            "/missing rw - ext4 /dev/sdg rw\n"
                            "30 1 8:7 / " +
                            t +
                            "/rw ro - exfat /dev/sdh1 rw\n"
                            "31 1 0:50 / " +
                            t + "/vol1/sub rw - tmpfs tmpfs rw\n";
        writeFile(dir.file("mountinfo"), table);
        setenv("TELO_MOUNTINFO", dir.file("mountinfo").c_str(), 1);
    }
    void TearDown() override { unsetenv("TELO_MOUNTINFO"); }
    TempDir dir;
};

}  // namespace

TEST_F(Volumes, EnumeratesDiskFileSystemsOncePerMountPoint) {
    std::vector<Record> expected = {
        {dir.file("vol1"), TELO_FS_EXT4, 1},
        {dir.file("vol2"), TELO_FS_BTRFS, 0},  // read-only super block
        {dir.file("stacked"), TELO_FS_EXT3, 1},
        {dir.file("with space"), TELO_FS_FAT, 1},
        {dir.file("rw"), TELO_FS_FOREIGN, 0},  // read-only mount
    };
    EXPECT_EQ(expected, enumerate());
    EXPECT_EQ(TELO_VOL_LOCATION_DISK, TELOVolumeSupportLocGet());
    EXPECT_TRUE(enumerate(3).empty());
    EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
}

TEST_F(Volumes, NoVolumeAndNoTable) {
    writeFile(dir.file("mountinfo"), "22 1 0:30 / " + dir.file("tmpfs") + " rw - tmpfs tmpfs rw\n");
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
    EXPECT_EQ(0, TELOVolumeSupportLocGet());
    setenv("TELO_MOUNTINFO", dir.file("absent").c_str(), 1);
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
    EXPECT_EQ(0, TELOVolumeSupportLocGet());
}

TEST_F(Volumes, VolumeHoldingAPath) {
    ASSERT_EQ(0, mkdir(dir.file("vol1/data").c_str(), 0755));
    ASSERT_EQ(0, symlink(dir.file("stacked").c_str(), dir.file("vol1/link").c_str()));
    TELOVOLInfo info;
    memset(&info, 0xff, sizeof(info));
    ASSERT_EQ(0, TELOMountVolInfoGet(dir.file("vol1/data").c_str(), &info));
    EXPECT_EQ(dir.file("vol1"), info.volPath);
    EXPECT_EQ(TELO_FS_EXT4, info.fsType);
    EXPECT_EQ(nullptr, info.next);
    // Links are resolved first.
    ASSERT_EQ(0, TELOMountVolInfoGet(dir.file("vol1/link").c_str(), &info));
    EXPECT_EQ(dir.file("stacked"), info.volPath);
    EXPECT_EQ(TELO_FS_EXT3, info.fsType);
    // A mount that is not a volume, a missing path, bad arguments.
    for (const std::string &path : {dir.file("vol1/sub"), dir.file("tmpfs"), dir.file("nope")}) {
        EXPECT_EQ(-1, TELOMountVolInfoGet(path.c_str(), &info)) << path;
        EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
    }
    EXPECT_EQ(-1, TELOMountVolInfoGet("", &info));
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    EXPECT_EQ(-1, TELOMountVolInfoGet("/", nullptr));
}

TEST_F(Volumes, TemporaryDirectoryIsMadeOnceAndShared) {
    char buffer[4095] = {};
    ASSERT_EQ(0, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(dir.file("vol1/.telobackup-tmp"), buffer);
    EXPECT_EQ(01777, fileMode(buffer));
    // Again, with a trailing slash: the same directory, still there.
    ASSERT_EQ(0, chmod(buffer, 01777));
    ASSERT_EQ(0, TELOShareTmpPathGet((dir.file("vol1") + "/").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(dir.file("vol1/.telobackup-tmp"), buffer);
    // Too small a buffer.
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, 10));
    EXPECT_EQ(unsigned(TELO_ERR_BUFFER_SMALL), TLIBCErrGet());
    EXPECT_EQ(-1, TELOShareTmpPathGet("relative", buffer, sizeof(buffer)));
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
}

TEST_F(Volumes, TemporaryDirectoryNeverFollowsAPlantedLink) {
    ASSERT_EQ(0, mkdir(dir.file("target").c_str(), 0700));
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("vol2/.telobackup-tmp").c_str()));
    writeFile(dir.file("stacked/.telobackup-tmp"), "file");
    char buffer[4095] = {};
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("vol2").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
    EXPECT_EQ(0700, fileMode(dir.file("target")));
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("stacked").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(Volumes, UnwritableVolumeRootGetsNoDirectory) {
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    std::string volume = dir.file("vol1");
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [volume] {
        char buffer[4095] = {};
        CHILD_CHECK_EQ(-1, TELOShareTmpPathGet(volume.c_str(), buffer, sizeof(buffer)));
        CHILD_CHECK_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
        CHILD_CHECK(!exists(volume + "/.telobackup-tmp"));
    });
}

// The machine's own mount table: the root file system is a volume unless it is not a disk file
// system at all (an overlay or tmpfs root, as in many containers).
TEST(MachineVolumes, RootIsAVolumeWhenItIsADisk) {
    unsetenv("TELO_MOUNTINFO");
    int rootType = TELOGetFSType("/", 0);
    TELOVOLInfo info = {};
    if (TELOMountVolInfoGet("/", &info) != 0) {
        GTEST_SKIP() << "the root file system (type code " << rootType
                     << ") is not a disk volume here";
    }
    EXPECT_STREQ("/", info.volPath);
    bool listed = false;
    TELOVOLInfo *list = TELOMountVolAllEnum(0, TELOVolumeSupportLocGet(), 2);
    for (TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        listed = listed || strcmp(v->volPath, "/") == 0;
    }
    TELOMountVolInfoFree(list);
    EXPECT_TRUE(listed);
}
