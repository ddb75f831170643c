// ScopedTempFile and ScopedTempFolder on real directories.
#include "telobackup/temp_manager/temp_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "support/syslog_capture.h"
#include "support/temp_dir.h"

using TELO::Backup::ScopedTempFile;
using TELO::Backup::ScopedTempFolder;
using namespace testsupport;

namespace {

class TempManager : public ::testing::Test {
  protected:
    TempDir dir;
    SyslogCapture log;
};

// `path` is `prefix` followed by exactly six generated characters.
void expectGenerated(const std::string &prefix, const std::string &path) {
    EXPECT_EQ(prefix.size() + 6, path.size()) << path;
    EXPECT_EQ(prefix, path.substr(0, prefix.size()));
    EXPECT_EQ(std::string::npos, path.find("XXXXXX", prefix.size())) << path;
}

}  // namespace

TEST_F(TempManager, TemplatesModesAndRemoval) {
    std::string byDefault;
    {
        ScopedTempFile file("", false), named(dir.file("name"), true);
        ScopedTempFile suffixed(dir.file("nameXXXXXX"), false);
        ScopedTempFolder folder(dir.file("d"));
        byDefault = file.getPath();
        expectGenerated("/tmp/scoped_temp_file.", byDefault);
        expectGenerated(dir.file("name."), named.getPath());
        expectGenerated(dir.file("name"), suffixed.getPath());
        expectGenerated(dir.file("d."), folder.getPath());
        EXPECT_EQ(0600, fileMode(named.getPath()));
        EXPECT_EQ(0700, fileMode(folder.getPath()));
        EXPECT_EQ(-1, named.getFileDescripter());
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.getFileDescripter(), F_GETFD) & FD_CLOEXEC);
        // create() replaces what was owned; unlink() gives up ownership.
        ASSERT_TRUE(named.create(dir.file("other")));
        EXPECT_EQ(0, suffixed.unlink());
        EXPECT_EQ(0, suffixed.unlink());
    }
    EXPECT_TRUE(listDir(dir.path()).empty());
    EXPECT_FALSE(exists(byDefault));
}

TEST_F(TempManager, CreateFailures) {
    EXPECT_FALSE(ScopedTempFile(dir.file("missing/x"), false).isValid());
    EXPECT_TRUE(log.has(LOG_DEBUG,
                        "temp_manager/temp_manager:<line> mkstemp failed, No such file "
                        "or directory [" +
                            dir.file("missing/x.XXXXXX") + "]"));
    // A name ending in XXXXXX is the caller's exact choice: never shortened.
    EXPECT_FALSE(ScopedTempFile(dir.file(std::string(300, 'n') + "XXXXXX"), false).isValid());
    EXPECT_EQ(ENAMETOOLONG, errno);
}

// Over-long names are cut to fit a 255-byte component and a 4095-byte path, on a character
// boundary ("é" is two bytes, so a cut at an odd offset must move back).
TEST_F(TempManager, OverlongNamesAreShortened) {
    std::string accents;
    for (int i = 0; i < 150; ++i) accents += "\xC3\xA9";
    ScopedTempFile file(dir.file("x" + accents), false);
    expectGenerated(dir.file("x" + accents.substr(0, 246) + "."), file.getPath());

    std::string deep = dir.path();
    while (deep.size() < 4000) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    }
    ScopedTempFile nearLimit(deep + "/" + std::string(200, 'f'), false);
    EXPECT_EQ(4095u, nearLimit.getPath().size());
}

TEST_F(TempManager, RenameAndPreserve) {
    ScopedTempFile file(dir.file("t"), false);
    EXPECT_FALSE(file.rename(file.getPath()));
    EXPECT_TRUE(log.has(LOG_ERR,
                        "(<pid>) [err] temp_manager/temp_manager:<line> rename temp file "
                        "to the same path[" +
                            file.getPath() + "]"));
    EXPECT_FALSE(file.rename(dir.file("missing/x")));
    ASSERT_TRUE(file.isValid());
    ASSERT_TRUE(file.rename(dir.file("moved")));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ(-1, file.getFileDescripter());

    std::string kept;
    {
        ScopedTempFolder folder(dir.file("f"));
        EXPECT_FALSE(folder.rename(folder.getPath()));
        EXPECT_TRUE(log.has(LOG_ERR, "<any>rename temp folder to the same path[<any>"));
        kept = folder.preserve();
        EXPECT_EQ("", folder.preserve());
    }
    EXPECT_EQ((std::vector<std::string>{"f" + kept.substr(kept.size() - 7), "moved"}),
              listDir(dir.path()));
}

TEST_F(TempManager, FolderTreeRemovedWithoutFollowingLinks) {
    std::string outside = dir.file("outside");
    ASSERT_EQ(0, mkdir(outside.c_str(), 0755));
    writeFile(outside + "/keep", "k");
    {
        ScopedTempFolder folder(dir.file("tree"));
        std::string root = folder.getPath();
        ASSERT_EQ(0, mkdir((root + "/a").c_str(), 0755));
        ASSERT_EQ(0, mkdir((root + "/a/b").c_str(), 0500));
        writeFile(root + "/a/f", "f");
        ASSERT_EQ(0, symlink(outside.c_str(), (root + "/a/link").c_str()));
    }
    EXPECT_EQ(std::vector<std::string>{"outside"}, listDir(dir.path()));
    EXPECT_EQ("k", readFile(outside + "/keep"));
}
