// Scoped temporaries on real directories, and on the volume a filter chooses (fake platform
// volumes over real directories). The volume path manager caches per signature for the life of
// the process, so each volume scenario runs in a child.
#include "telobackup/temp_manager/temp_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"

using namespace TELO::Backup;
using namespace testsupport;
using Names = std::vector<std::string>;

namespace {

class Temporaries : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeplatform::reset();
        makeDir(dir.file("vol"));
        makeDir(tmp);
        fakeplatform::outcomes().volumes.push_back({dir.file("vol"), TELO_FS_EXT4, 100, 1, 1});
        fakeplatform::outcomes().shareTmpPaths[dir.file("vol")] = tmp;
    }
    TempDir dir;
    std::string tmp = dir.file("vol/.tmp");
    SyslogCapture log{"temp_manager/temp_manager"};
};

// `prefix` followed by the six characters mkstemp/mkdtemp put in place of "XXXXXX".
bool generated(const std::string &prefix, const std::string &path) {
    return path.size() == prefix.size() + 6 && path.compare(0, prefix.size(), prefix) == 0 &&
           path.find("XXXXXX", prefix.size()) == std::string::npos;
}

std::shared_ptr<FilterVolume> largest() {
    return TempManager::maxVolume(1, 2, false);
}

}  // namespace

// Destroyed objects remove what they still own (a folder with its content), nothing else.
TEST_F(Temporaries, TemplatesModesRenameAndRemoval) {
    std::string byDefault, kept;
    {
        ScopedTempFile file("", false), named(dir.file("name"), true);
        ScopedTempFolder folder(dir.file("d")), full(dir.file("full"));
        writeFile(full.getPath() + "/inside", "x");
        byDefault = file.getPath();
        EXPECT_TRUE(generated("/tmp/scoped_temp_file.", byDefault)) << byDefault;
        EXPECT_TRUE(generated(dir.file("name."), named.getPath()));
        EXPECT_EQ(0600, fileMode(named.getPath()));
        EXPECT_EQ(0700, fileMode(folder.getPath()));
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.getFileDescripter(), F_GETFD) & FD_CLOEXEC);
        // A rename onto itself or into nowhere fails and keeps the temporary.
        EXPECT_FALSE(file.rename(file.getPath()));
        EXPECT_FALSE(file.rename(dir.file("missing/x")));
        ASSERT_TRUE(file.rename(dir.file("moved")));
        EXPECT_FALSE(file.isValid());
        kept = folder.preserve();
    }
    EXPECT_EQ((Names{"d" + kept.substr(kept.size() - 7), "moved", "vol"}), listDir(dir.path()));
    EXPECT_FALSE(exists(byDefault));
}

// Over-long names are cut to fit a 255-byte component and a 4095-byte path, on a character
// boundary ("é" is two bytes, so a cut at an odd offset must move back); a name ending in
// XXXXXX is the caller's exact choice and never shortened.
TEST_F(Temporaries, OverlongNames) {
    EXPECT_FALSE(ScopedTempFile(dir.file(std::string(300, 'n') + "XXXXXX"), false).isValid());
    EXPECT_EQ(ENAMETOOLONG, errno);
    std::string accents;
    for (int i = 0; i < 150; ++i) accents += "\xC3\xA9";
    ScopedTempFile file(dir.file("x" + accents), false);
    EXPECT_TRUE(generated(dir.file("x" + accents.substr(0, 246) + "."), file.getPath()));
}

// A name that no longer holds the temporary (swapped while it was open, or a second link to it
// once it was closed) is neither moved nor removed: the object gives it up.
TEST_F(Temporaries, RenameRefusesANameThatIsNoLongerTheTemporary) {
    std::string planted = dir.file("planted");
    for (bool withMode : {false, true}) {
        ScopedTempFile file(dir.file("t"), false);
        std::string name = file.getPath();
        ASSERT_EQ(0, rename(name.c_str(), dir.file("away").c_str()));
        writeFile(name, "planted", 0644);
        EXPECT_FALSE(withMode ? file.renameWithMode(planted) : file.rename(planted));
        EXPECT_EQ(ESTALE, errno);
        EXPECT_FALSE(file.isValid());
        EXPECT_EQ("planted", readFile(name));
        ASSERT_EQ(0, unlink(name.c_str()));
    }
    ScopedTempFile closed(dir.file("t"), true);
    ASSERT_EQ(0, link(closed.getPath().c_str(), dir.file("second").c_str()));
    EXPECT_FALSE(closed.rename(planted));
    EXPECT_EQ(ESTALE, errno);
    EXPECT_FALSE(closed.isValid());
    EXPECT_FALSE(exists(planted));
    // Only the move with the mode logs, as renameWithMode's failed rename.
    EXPECT_EQ(1, log.count(LOG_ERR, "<any>rename failed Stale file handle, [" + planted + "]"));
    EXPECT_EQ(1u, log.size()) << log.dump();
}

// A bad name ("." and ".." would put the temporary beside the directory) leaves nothing;
// without any volume, a filter with the fallback uses /tmp.
TEST_F(Temporaries, OnTheChosenVolume) {
    EXPECT_CHILD_OK([this] {
        std::string keptFile;
        {
            ScopedVolumeTempFile file(largest(), "", false);
            CHILD_CHECK(generated(tmp + "/scoped_volume_temp_file.", file.getPath()));
            keptFile = ScopedVolumeTempFile(largest(), "job", true).preserve();
            CHILD_CHECK(generated(tmp + "/job.", keptFile));
        }
        CHILD_CHECK_EQ(Names{keptFile.substr(tmp.size() + 1)}, listDir(tmp));
        CHILD_CHECK(!ScopedVolumeTempFile(largest(), "a/b", false).isValid());
        CHILD_CHECK(!ScopedVolumeTempFolder(largest(), "..").isValid());
        CHILD_CHECK_EQ(Names{keptFile.substr(tmp.size() + 1)}, listDir(tmp));
        fakeplatform::outcomes().volumes.clear();
        ScopedVolumeTempFile fallback(TempManager::maxVolume(true), "", true);
        CHILD_CHECK(generated("/tmp/scoped_volume_temp_file.", fallback.getPath()));
    });
}
