// Temporaries placed on the volume a filter chooses (fake platform volumes over real
// directories). The volume path manager caches per signature for the life of the process, so
// each scenario runs in a child.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"
#include "telobackup/temp_manager/temp_manager.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

class VolumeTemp : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeplatform::reset();
        tmp = dir.file("vol/.tmp");
        ASSERT_EQ(0, mkdir(dir.file("vol").c_str(), 0755));
        ASSERT_EQ(0, mkdir(tmp.c_str(), 0755));
        fakeplatform::outcomes().volumes.push_back({dir.file("vol"), TELO_FS_EXT4, 100, 1, 1});
        fakeplatform::outcomes().shareTmpPaths[dir.file("vol")] = tmp;
    }
    TempDir dir;
    std::string tmp;
};

// `prefix` followed by the six characters mkstemp/mkdtemp put in place of "XXXXXX".
bool hasSixRandom(const std::string &path, const std::string &prefix) {
    if (path.size() != prefix.size() + 6 || path.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    std::string tail = path.substr(prefix.size());
    return tail != "XXXXXX" && tail.find_first_not_of(
                                   "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOP"
                                   "QRSTUVWXYZ0123456789") == std::string::npos;
}

}  // namespace

TEST_F(VolumeTemp, PlacedInTheChosenDirectory) {
    EXPECT_CHILD_OK([this] {
        std::string keptFile, keptFolder;
        {
            ScopedVolumeTempFile file(TempManager::maxVolume(1, 2, false), "", false);
            CHILD_CHECK(file.isValid());
            CHILD_CHECK(hasSixRandom(file.getPath(), tmp + "/scoped_volume_temp_file."));
            CHILD_CHECK(file.getFileDescripter() >= 0);
            CHILD_CHECK_EQ(0600, fileMode(file.getPath()));
            ScopedVolumeTempFolder folder(TempManager::maxVolume(1, 2, false), "");
            CHILD_CHECK(folder.isValid());
            CHILD_CHECK(hasSixRandom(folder.getPath(), tmp + "/scoped_volume_temp_folder."));
            CHILD_CHECK_EQ(0700, fileMode(folder.getPath()));
            ScopedVolumeTempFile named(TempManager::maxVolume(1, 2, false), "job", true);
            CHILD_CHECK(hasSixRandom(named.getPath(), tmp + "/job."));
            CHILD_CHECK_EQ(-1, named.getFileDescripter());
            ScopedVolumeTempFile exact(TempManager::maxVolume(1, 2, false), "jobXXXXXX", true);
            CHILD_CHECK(hasSixRandom(exact.getPath(), tmp + "/job"));
            keptFile = named.preserve();
            keptFolder = folder.preserve();
        }
        // Destroyed objects remove what they still own, nothing else.
        CHILD_CHECK_EQ(2u, listDir(tmp).size());
        CHILD_CHECK(exists(keptFile) && exists(keptFolder));
        return std::string();
    });
}

TEST_F(VolumeTemp, OverLongNamesAreShortened) {
    EXPECT_CHILD_OK([this] {
        std::string name(300, 'n');
        ScopedVolumeTempFile file(TempManager::maxVolume(1, 2, false), name, true);
        CHILD_CHECK(file.isValid());
        CHILD_CHECK(hasSixRandom(file.getPath(), tmp + "/" + std::string(248, 'n') + "."));
        return std::string();
    });
}

TEST_F(VolumeTemp, BadFilterNameOrDirectoryLeaveNothing) {
    EXPECT_CHILD_OK([this] {
        SyslogCapture log;
        ScopedVolumeTempFile nullFilter(nullptr, "x", false);
        ScopedVolumeTempFolder nullFolder(nullptr, "x");
        CHILD_CHECK(!nullFilter.isValid() && !nullFolder.isValid());
        CHILD_CHECK_EQ(2, log.count(LOG_ERR,
                                    "(<pid>) [err] temp_manager/temp_manager:<line> "
                                    "volume temp filter is null!"));
        ScopedVolumeTempFile slash(TempManager::maxVolume(1, 2, false), "a/b", false);
        CHILD_CHECK(!slash.isValid());
        CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                    "(<pid>) [err] temp_manager/temp_manager:<line> "
                                    "name[a/b] is invalid!"));
        // "." would put the temporary beside the chosen directory, not in it.
        ScopedVolumeTempFile dot(TempManager::maxVolume(1, 2, false), ".", false);
        ScopedVolumeTempFolder dots(TempManager::maxVolume(1, 2, false), "..");
        CHILD_CHECK(!dot.isValid() && !dots.isValid());
        CHILD_CHECK_EQ(std::vector<std::string>{".tmp"}, listDir(dir.file("vol")));
        CHILD_CHECK_EQ(3, log.count(LOG_ERR, "<any> is invalid!"));
        // No directory for the filter: silently nothing.
        fakeplatform::outcomes().volumes.clear();
        size_t before = log.size();
        ScopedVolumeTempFile none(TempManager::maxExtVolume(1, 2, false), "x", false);
        CHILD_CHECK(!none.isValid());
        CHILD_CHECK_EQ(before, log.size());
        CHILD_CHECK(listDir(tmp).empty());
        return std::string();
    });
}

TEST_F(VolumeTemp, FallbackToTmpWithoutAnyVolume) {
    fakeplatform::outcomes().volumes.clear();
    EXPECT_CHILD_OK([] {
        ScopedVolumeTempFile file(TempManager::maxVolume(true), "", true);
        CHILD_CHECK(file.isValid());
        CHILD_CHECK(hasSixRandom(file.getPath(), "/tmp/scoped_volume_temp_file."));
        return std::string();
    });
}

TEST(TempManagerFactories, MakeTheFiltersTheirArgumentsDescribe) {
    fakeplatform::reset();
    fakeplatform::outcomes().volumeLocation = 5;
    fakeplatform::outcomes().volumeOfPath["/v/x"] = "/v";
    EXPECT_EQ("FilterMaxVolume:5:2:0", TempManager::maxVolume()->getSignature());
    EXPECT_EQ("FilterMaxVolume:5:2:1", TempManager::maxVolume(true)->getSignature());
    EXPECT_EQ("FilterMaxVolume:1:3:0", TempManager::maxVolume(1, 3, false)->getSignature());
    EXPECT_EQ("FilterMaxExtVolume:5:2:0", TempManager::maxExtVolume()->getSignature());
    EXPECT_EQ("FilterMaxExtVolume:5:2:1", TempManager::maxExtVolume(true)->getSignature());
    EXPECT_EQ("FilterMaxExtVolume:2:2:1", TempManager::maxExtVolume(2, 2, true)->getSignature());
    EXPECT_EQ("FilterMaxExtBtrfsVolume:5:2:0", TempManager::maxExtBtrfsVolume()->getSignature());
    EXPECT_EQ("FilterMaxExtBtrfsVolume:5:2:1",
              TempManager::maxExtBtrfsVolume(true)->getSignature());
    EXPECT_EQ("FilterMaxExtBtrfsVolume:0:0:0",
              TempManager::maxExtBtrfsVolume(0, 0, false)->getSignature());
    EXPECT_EQ("FilterSameVolume:/v", TempManager::sameVolume("/v/x")->getSignature());
}
