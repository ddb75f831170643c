// Volume filters and the volume path manager over the fake platform. The manager's cache lives
// as long as the process, so every manager scenario runs in its own child.
#include "telobackup/temp_manager/volume_path_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/temp_dir.h"

using namespace TELO::Backup;
using namespace testsupport;
using fakeplatform::calls;

namespace {

TELOVOLInfo volume(unsigned long long freeBytes, int fsType = TELO_FS_EXT4) {
    TELOVOLInfo info = {};
    snprintf(info.volPath, sizeof(info.volPath), "/vol");
    info.freeBytes = freeBytes;
    info.fsType = fsType;
    info.mounted = info.usable = 1;
    return info;
}

std::shared_ptr<FilterVolume> maxFilter(bool useTmpFallback) {
    return std::make_shared<FilterMaxVolume>(1, 2, useTmpFallback);
}

class VolumeFilters : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
};

}  // namespace

// The type test comes first, so a refused type never raises the bar; free space compares as
// unsigned 64-bit and must be strictly larger than the best so far.
TEST_F(VolumeFilters, AcceptTheirTypesWithStrictlyLargerSpace) {
    FilterMaxVolume sizes(1, 2, false);
    std::string bySize;
    for (unsigned long long size : {30ull, 30ull, 31ull, ~0ull}) {
        bySize += sizes.isAccept(volume(size)) ? "Y" : "n";
    }
    EXPECT_EQ("YnYY", bySize);
    EXPECT_FALSE(FilterMaxExtVolume(1, 2, false).isAccept(volume(1000, TELO_FS_BTRFS)));
    EXPECT_TRUE(FilterMaxExtBtrfsVolume(1, 2, false).isAccept(volume(5, TELO_FS_BTRFS)));
}

// Volumes whose temporary directories are real directories of a test tree.
class VolumeManager : public VolumeFilters {
  protected:
    // A volume at dir/<name> whose temporary directory dir/<name>-tmp exists when `tmpExists`.
    fakeplatform::Volume &addVolume(const std::string &name, unsigned long long freeBytes,
                                    bool tmpExists = true) {
        std::string tmp = dir.file(name + "-tmp");
        if (tmpExists) makeDir(tmp, 0777);
        fakeplatform::outcomes().shareTmpPaths[dir.file(name)] = tmp;
        fakeplatform::outcomes().volumes.push_back({dir.file(name), TELO_FS_EXT4, freeBytes, 1, 1});
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
    EXPECT_CHILD_OK([this] {
        VolumePathManager &manager = VolumePathManager::getInstance();
        std::string out = "stale";
        CHILD_CHECK(manager.getVolumePath(maxFilter(false), out));
        CHILD_CHECK(out == dir.file("best-tmp"));
        // The same signature from a new object is answered from the cache; another enumerates.
        out.clear();
        CHILD_CHECK(manager.getVolumePath(maxFilter(false), out));
        CHILD_CHECK(out == dir.file("best-tmp"));
        CHILD_CHECK_EQ(1, calls("TELOMountVolAllEnum"));
        CHILD_CHECK(manager.getVolumePath(maxFilter(true), out));
        CHILD_CHECK_EQ(2, calls("TELOMountVolAllEnum"));
        // A same-volume filter never enumerates.
        fakeplatform::outcomes().volumeOfPath[dir.file("best/data")] = dir.file("best");
        CHILD_CHECK(
            manager.getVolumePath(std::make_shared<FilterSameVolume>(dir.file("best/data")), out));
        CHILD_CHECK_EQ(dir.file("best-tmp"), out);
        CHILD_CHECK_EQ(2, calls("TELOMountVolAllEnum"));
    });
}

TEST_F(VolumeManager, UnwritableTemporaryDirectoriesAreSkipped) {
    addVolume("readonly", 90);
    addVolume("writable", 10);
    ASSERT_EQ(0, chmod(dir.file("readonly-tmp").c_str(), 0555));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [this] {
        std::string out;
        CHILD_CHECK(VolumePathManager::getInstance().getVolumePath(maxFilter(false), out));
        CHILD_CHECK_EQ(dir.file("writable-tmp"), out);
    });
}

// Without a usable volume, a filter with the /tmp fallback gets /tmp, cached; one without gets
// nothing and asks again next time. A failed enumeration counts as no volume.
TEST_F(VolumeManager, FallbackIsCachedButFailureIsNot) {
    addVolume("broken", 20);
    fakeplatform::setFail("TELOShareTmpPathGet");
    EXPECT_CHILD_OK([] {
        VolumePathManager &manager = VolumePathManager::getInstance();
        std::string out = "stale";
        CHILD_CHECK(!manager.getVolumePath(maxFilter(false), out));
        CHILD_CHECK(out.empty());
        CHILD_CHECK(!manager.getVolumePath(maxFilter(false), out));
        CHILD_CHECK_EQ(2, calls("TELOMountVolAllEnum"));
        CHILD_CHECK(manager.getVolumePath(maxFilter(true), out));
        CHILD_CHECK(manager.getVolumePath(maxFilter(true), out));
        CHILD_CHECK(out == "/tmp");
        CHILD_CHECK_EQ(3, calls("TELOMountVolAllEnum"));
        fakeplatform::setFail("TELOMountVolAllEnum");
        CHILD_CHECK(manager.getVolumePath(std::make_shared<FilterMaxExtVolume>(1, 2, true), out));
        CHILD_CHECK(out == "/tmp");
        CHILD_CHECK_EQ(3, calls("TELOMountVolInfoFree"));  // nothing to free after a failure
    });
}
