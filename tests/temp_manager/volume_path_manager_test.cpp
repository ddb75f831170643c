// Volume filters and the volume path manager over the fake platform. The manager's cache lives
// as long as the process, so every manager scenario runs in its own child.
#include "telobackup/temp_manager/volume_path_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

TELOVOLInfo volume(unsigned long long freeBytes, int fsType = TELO_FS_EXT4) {
    TELOVOLInfo info = {};
    snprintf(info.volPath, sizeof(info.volPath), "/vol");
    info.freeBytes = freeBytes;
    info.fsType = fsType;
    info.mounted = info.usable = 1;
    return info;
}

class VolumeFilters : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
    SyslogCapture log;
};

}  // namespace

TEST_F(VolumeFilters, MaxFiltersAcceptOnlyStrictlyLargerSpace) {
    FilterMaxVolume filter(1, 2, false);
    std::vector<bool> accepted;
    for (unsigned long long size : {10ull, 30ull, 30ull, 20ull, 31ull}) {
        accepted.push_back(filter.isAccept(volume(size)));
    }
    EXPECT_EQ((std::vector<bool>{true, true, false, false, true}), accepted);
    // Free space compares as unsigned 64-bit.
    FilterMaxVolume big(1, 2, false);
    EXPECT_TRUE(big.isAccept(volume(1ull << 62)));
    EXPECT_TRUE(big.isAccept(volume(~0ull)));
}

TEST_F(VolumeFilters, TypeTestComesBeforeSize) {
    FilterMaxExtVolume ext(1, 2, false);
    FilterMaxExtBtrfsVolume extBtrfs(1, 2, false);
    FilterMaxVolume any(1, 2, false);
    struct Case {
        int type;
        bool ext, extBtrfs;
    } cases[] = {{TELO_FS_FAT, false, false},     {TELO_FS_EXT3, true, true},
                 {TELO_FS_EXT4, true, true},      {TELO_FS_BTRFS, false, true},
                 {TELO_FS_XFS, false, false},     {TELO_FS_FOREIGN, false, false},
                 {TELO_FS_NETWORK, false, false}, {TELO_FS_OTHER, false, false}};
    unsigned long long size = 100;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.type);
        // Growing sizes, so only the type decides.
        EXPECT_EQ(c.ext, ext.isAccept(volume(size, c.type)));
        EXPECT_EQ(c.extBtrfs, extBtrfs.isAccept(volume(size, c.type)));
        EXPECT_TRUE(any.isAccept(volume(size, c.type)));
        size += 100;
    }
    // A refused type does not raise the bar: a big btrfs volume, then a small ext4 one.
    FilterMaxExtVolume fresh(1, 2, false);
    EXPECT_FALSE(fresh.isAccept(volume(1000, TELO_FS_BTRFS)));
    EXPECT_TRUE(fresh.isAccept(volume(5, TELO_FS_EXT4)));
}

TEST_F(VolumeFilters, SignaturesAndEnumerationParameters) {
    EXPECT_EQ("FilterMaxVolume:3:2:1", FilterMaxVolume(3, 2, true).getSignature());
    EXPECT_EQ("FilterMaxExtVolume:-1:0:0", FilterMaxExtVolume(-1, 0, false).getSignature());
    EXPECT_EQ("FilterMaxExtBtrfsVolume:7:9:1", FilterMaxExtBtrfsVolume(7, 9, true).getSignature());
    EXPECT_EQ(0, fakeplatform::calls("TELOVolumeSupportLocGet"));

    // Default construction asks the platform for the location; mode 2.
    fakeplatform::outcomes().volumeLocation = 4;
    EXPECT_EQ("FilterMaxVolume:4:2:0", FilterMaxVolume().getSignature());
    EXPECT_EQ("FilterMaxExtVolume:4:2:1", FilterMaxExtVolume(true).getSignature());
    EXPECT_EQ("FilterMaxExtBtrfsVolume:4:2:0", FilterMaxExtBtrfsVolume(false).getSignature());
    EXPECT_EQ(3, fakeplatform::calls("TELOVolumeSupportLocGet"));
    // No location: both stay 0.
    fakeplatform::outcomes().volumeLocation = 0;
    FilterMaxVolume none;
    EXPECT_EQ("FilterMaxVolume:0:0:0", none.getSignature());
    int location = -1, mode = -1;
    EXPECT_TRUE(none.getVolumeEnumParameter(location, mode));
    EXPECT_EQ(0, location);
    EXPECT_EQ(0, mode);
    EXPECT_EQ("", none.defaultPath());
    EXPECT_EQ("/tmp", FilterMaxVolume(true).defaultPath());
}

TEST_F(VolumeFilters, SameVolumeFilter) {
    fakeplatform::outcomes().volumeOfPath["/srv/photos"] = "/srv";
    fakeplatform::outcomes().shareTmpPaths["/srv"] = "/srv/.telobackup-tmp";
    FilterSameVolume known("/srv/photos");
    EXPECT_EQ("FilterSameVolume:/srv", known.getSignature());
    EXPECT_EQ("/srv/.telobackup-tmp", known.defaultPath());
    int location = 0, mode = 0;
    EXPECT_FALSE(known.getVolumeEnumParameter(location, mode));
    EXPECT_FALSE(known.isAccept(volume(1ull << 40)));
    EXPECT_EQ(0u, log.size());

    FilterSameVolume unknown("/elsewhere");
    EXPECT_EQ("FilterSameVolume:", unknown.getSignature());
    EXPECT_EQ("", unknown.defaultPath());
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] temp_manager/volume_path_manager:<line> "
                           "TELOMountVolInfoGet(/elsewhere) failed, [0x0002 "
                           "fake_platform.cpp:<line>]"))
        << log.dump();

    fakeplatform::setFail("TELOShareTmpPathGet", true, TELO_ERR_SYSTEM);
    EXPECT_EQ("", known.defaultPath());
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] temp_manager/volume_path_manager:<line> "
                           "TELOShareTmpPathGet(/srv) fail, [0x0004 "
                           "fake_platform.cpp:<line>]"));
}

// Volumes whose temporary directories are real directories of a test tree.
class VolumeManager : public VolumeFilters {
  protected:
    // A volume at dir/<name> whose temporary directory dir/<name>-tmp exists when `writable`.
    fakeplatform::Volume &addVolume(const std::string &name, unsigned long long freeBytes,
                                    bool tmpExists = true) {
        fakeplatform::Volume v;
        v.path = dir.file(name);
        v.freeBytes = freeBytes;
        std::string tmp = dir.file(name + "-tmp");
        if (tmpExists) {
            mkdir(tmp.c_str(), 0777);
            chmod(tmp.c_str(), 0777);
        }
        fakeplatform::outcomes().shareTmpPaths[v.path] = tmp;
        fakeplatform::outcomes().volumes.push_back(v);
        return fakeplatform::outcomes().volumes.back();
    }
    TempDir dir;
};

TEST_F(VolumeManager, ChoosesTheLargestUsableWritableVolumeAndCachesIt) {
    addVolume("small", 10);
    addVolume("missing-tmp", 40, false);
    addVolume("unusable", 50).usable = 0;
    addVolume("unmounted", 60).mounted = 0;
    fakeplatform::outcomes().volumes.push_back({"", TELO_FS_EXT4, 70, 1, 1});
    addVolume("best", 30);
    addVolume("tie", 30);
    EXPECT_CHILD_OK([this] {
        std::string out = "stale";
        CHILD_CHECK(VolumePathManager::getInstance().getVolumePath(
            std::make_shared<FilterMaxVolume>(1, 2, false), out));
        CHILD_CHECK_EQ(dir.file("best-tmp"), out);
        CHILD_CHECK_EQ(1, fakeplatform::calls("TELOMountVolAllEnum"));
        CHILD_CHECK_EQ(1, fakeplatform::calls("TELOMountVolInfoFree"));
        // The same signature from a new object: answered from the cache.
        out.clear();
        CHILD_CHECK(VolumePathManager::getInstance().getVolumePath(
            std::make_shared<FilterMaxVolume>(1, 2, false), out));
        CHILD_CHECK_EQ(dir.file("best-tmp"), out);
        CHILD_CHECK_EQ(1, fakeplatform::calls("TELOMountVolAllEnum"));
        // Another signature enumerates again.
        CHILD_CHECK(VolumePathManager::getInstance().getVolumePath(
            std::make_shared<FilterMaxVolume>(1, 2, true), out));
        CHILD_CHECK_EQ(2, fakeplatform::calls("TELOMountVolAllEnum"));
        return std::string();
    });
}

TEST_F(VolumeManager, UnwritableTemporaryDirectoriesAreSkipped) {
    addVolume("readonly", 90);
    addVolume("writable", 10);
    ASSERT_EQ(0, chmod(dir.file("readonly-tmp").c_str(), 0555));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    EXPECT_CHILD_OK(
        [this] {
            std::string out;
            CHILD_CHECK(VolumePathManager::getInstance().getVolumePath(
                std::make_shared<FilterMaxVolume>(1, 2, false), out));
            CHILD_CHECK_EQ(dir.file("writable-tmp"), out);
            return std::string();
        },
        ChildOptions{.dropPrivileges = true});
}

TEST_F(VolumeManager, FallbackIsCachedButFailureIsNot) {
    addVolume("gone", 10, false);
    fakeplatform::setFail("TELOShareTmpPathGet", true, TELO_ERR_SYSTEM);
    addVolume("broken", 20);
    EXPECT_CHILD_OK([this] {
        SyslogCapture childLog;
        VolumePathManager &manager = VolumePathManager::getInstance();
        std::string out = "stale";
        CHILD_CHECK(!manager.getVolumePath(std::make_shared<FilterMaxVolume>(1, 2, false), out));
        CHILD_CHECK_EQ(std::string(), out);
        CHILD_CHECK(!manager.getVolumePath(std::make_shared<FilterMaxVolume>(1, 2, false), out));
        CHILD_CHECK_EQ(2, fakeplatform::calls("TELOMountVolAllEnum"));
        CHILD_CHECK_EQ(4, childLog.count(LOG_ERR,
                                         "(<pid>) [err] temp_manager/volume_path_manager:"
                                         "<line> TELOShareTmpPathGet(<any>) fail, "
                                         "[0x0004 fake_platform.cpp:<line>]"));

        CHILD_CHECK(manager.getVolumePath(std::make_shared<FilterMaxVolume>(1, 2, true), out));
        CHILD_CHECK_EQ(std::string("/tmp"), out);
        CHILD_CHECK(manager.getVolumePath(std::make_shared<FilterMaxVolume>(1, 2, true), out));
        CHILD_CHECK_EQ(3, fakeplatform::calls("TELOMountVolAllEnum"));

        // A null filter leaves the output alone.
        out = "untouched";
        CHILD_CHECK(!manager.getVolumePath(nullptr, out));
        CHILD_CHECK_EQ(std::string("untouched"), out);
        return std::string();
    });
}

TEST_F(VolumeManager, FailedEnumerationFallsBack) {
    addVolume("v", 10);
    fakeplatform::setFail("TELOMountVolAllEnum", true, TELO_ERR_SYSTEM);
    EXPECT_CHILD_OK([] {
        std::string out;
        VolumePathManager &manager = VolumePathManager::getInstance();
        CHILD_CHECK(manager.getVolumePath(std::make_shared<FilterMaxExtVolume>(1, 2, true), out));
        CHILD_CHECK_EQ(std::string("/tmp"), out);
        CHILD_CHECK(!manager.getVolumePath(std::make_shared<FilterMaxExtVolume>(1, 2, false), out));
        CHILD_CHECK_EQ(0, fakeplatform::calls("TELOMountVolInfoFree"));
        return std::string();
    });
}

TEST_F(VolumeManager, SameVolumeNeverEnumerates) {
    addVolume("v", 10);
    fakeplatform::outcomes().volumeOfPath[dir.file("v/data")] = dir.file("v");
    EXPECT_CHILD_OK([this] {
        VolumePathManager &manager = VolumePathManager::getInstance();
        std::string out;
        CHILD_CHECK(
            manager.getVolumePath(std::make_shared<FilterSameVolume>(dir.file("v/data")), out));
        CHILD_CHECK_EQ(dir.file("v-tmp"), out);
        CHILD_CHECK(
            manager.getVolumePath(std::make_shared<FilterSameVolume>(dir.file("v/data")), out));
        CHILD_CHECK_EQ(1, fakeplatform::calls("TELOShareTmpPathGet"));
        CHILD_CHECK(!manager.getVolumePath(std::make_shared<FilterSameVolume>("/nowhere"), out));
        CHILD_CHECK_EQ(0, fakeplatform::calls("TELOMountVolAllEnum"));
        return std::string();
    });
}
