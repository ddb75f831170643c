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
    ASSERT_EQ(prefix.size() + 6, path.size()) << path;
    EXPECT_EQ(prefix, path.substr(0, prefix.size()));
    EXPECT_EQ(std::string::npos, path.find("XXXXXX", prefix.size())) << path;
}

}  // namespace

TEST_F(TempManager, TemplatesModesAndRemoval) {
    std::string kept;
    {
        ScopedTempFile byDefault("", false);
        ScopedTempFile named(dir.file("name"), true);
        ScopedTempFile suffixed(dir.file("nameXXXXXX"), false);
        ScopedTempFolder folder(dir.file("d"));
        ASSERT_TRUE(byDefault.isValid() && named.isValid() && suffixed.isValid());
        ASSERT_TRUE(folder.isValid());
        expectGenerated("/tmp/scoped_temp_file.", byDefault.getPath());
        expectGenerated(dir.file("name."), named.getPath());
        expectGenerated(dir.file("name"), suffixed.getPath());
        expectGenerated(dir.file("d."), folder.getPath());
        EXPECT_EQ(0600, fileMode(named.getPath()));
        EXPECT_EQ(0700, fileMode(folder.getPath()));
        EXPECT_EQ(-1, named.getFileDescripter());
        EXPECT_GE(byDefault.getFileDescripter(), 0);
        EXPECT_EQ(FD_CLOEXEC, fcntl(byDefault.getFileDescripter(), F_GETFD) & FD_CLOEXEC);
        kept = byDefault.getPath();
        // A relative template is made absolute.
        ASSERT_EQ(0, chdir(dir.path().c_str()));
        ScopedTempFolder relative("rel");
        expectGenerated(dir.file("rel."), relative.getPath());
        ASSERT_EQ(0, chdir("/"));
    }
    EXPECT_TRUE(listDir(dir.path()).empty());
    EXPECT_FALSE(exists(kept));
}

TEST_F(TempManager, CreateReplacesAndUnlinkGivesUp) {
    ScopedTempFile file(dir.file("a"), false);
    std::string first = file.getPath();
    ASSERT_TRUE(file.create(dir.file("b")));
    EXPECT_FALSE(exists(first));
    EXPECT_EQ(0, file.unlink());
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("", file.getPath());
    EXPECT_EQ(0, file.unlink());  // nothing owned
    EXPECT_TRUE(listDir(dir.path()).empty());
}

TEST_F(TempManager, CreateFailures) {
    ScopedTempFile missingDir(dir.file("missing/x"), false);
    EXPECT_FALSE(missingDir.isValid());
    EXPECT_EQ(-1, missingDir.getFileDescripter());
    EXPECT_TRUE(log.has(LOG_DEBUG,
                        "temp_manager/temp_manager:<line> mkstemp failed, No such file "
                        "or directory [" +
                            dir.file("missing/x.XXXXXX") + "]"))
        << log.dump();
    // A name ending in XXXXXX is the caller's exact choice: never shortened.
    ScopedTempFile tooLong(dir.file(std::string(300, 'n') + "XXXXXX"), false);
    EXPECT_FALSE(tooLong.isValid());
    EXPECT_EQ(ENAMETOOLONG, errno);
    ScopedTempFolder folder(dir.file("missing/y"));
    EXPECT_FALSE(folder.isValid());
}

// Over-long names are cut to fit a 255-byte component and a 4095-byte path, on a character
// boundary ("é" is two bytes, so a cut at an odd offset must move back).
TEST_F(TempManager, OverlongNamesAreShortened) {
    std::string accents;
    for (int i = 0; i < 150; ++i) accents += "\xC3\xA9";
    ScopedTempFile file(dir.file("x" + accents), false);
    ASSERT_TRUE(file.isValid()) << log.dump();
    std::string base = file.getPath().substr(dir.path().size() + 1);
    EXPECT_EQ(247u + 7u, base.size());  // 248 would split a character
    expectGenerated(dir.file("x" + accents.substr(0, 246) + "."), file.getPath());

    std::string deep = dir.path();
    while (deep.size() < 4000) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    }
    ScopedTempFile nearLimit(deep + "/" + std::string(200, 'f'), false);
    ASSERT_TRUE(nearLimit.isValid()) << log.dump();
    EXPECT_EQ(4095u, nearLimit.getPath().size());
}

TEST_F(TempManager, RenamePreserveAndModes) {
    ScopedTempFile file(dir.file("t"), false);
    std::string own = file.getPath();
    EXPECT_FALSE(file.rename(own));
    EXPECT_TRUE(log.has(LOG_ERR,
                        "(<pid>) [err] temp_manager/temp_manager:<line> rename temp file "
                        "to the same path[" +
                            own + "]"));
    EXPECT_TRUE(exists(own));
    EXPECT_FALSE(file.rename(dir.file("missing/x")));
    EXPECT_TRUE(file.isValid());
    ASSERT_TRUE(file.rename(dir.file("moved")));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ(-1, file.getFileDescripter());

    writeFile(dir.file("target"), "old", 0640);
    ScopedTempFile replacement(dir.file("t"), true);
    ASSERT_TRUE(replacement.renameWithMode(dir.file("target")));
    EXPECT_EQ(0640, fileMode(dir.file("target")));
    EXPECT_EQ("", readFile(dir.file("target")));

    std::string kept;
    {
        ScopedTempFolder folder(dir.file("f"));
        EXPECT_FALSE(folder.rename(folder.getPath()));
        EXPECT_TRUE(log.has(LOG_ERR,
                            "(<pid>) [err] temp_manager/temp_manager:<line> rename temp "
                            "folder to the same path[" +
                                folder.getPath() + "]"));
        kept = folder.preserve();
        EXPECT_EQ("", folder.preserve());
    }
    EXPECT_EQ(0700, fileMode(kept));
    EXPECT_EQ((std::vector<std::string>{"f" + kept.substr(kept.size() - 7), "moved", "target"}),
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
        ASSERT_EQ(0, symlink((outside + "/keep").c_str(), (root + "/filelink").c_str()));
    }
    EXPECT_EQ(std::vector<std::string>{"outside"}, listDir(dir.path()));
    EXPECT_EQ("k", readFile(outside + "/keep"));
}
