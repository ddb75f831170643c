// Several sections in one rewrite, and the two calls a consumer needs beside the rewrites:
// opening a configuration file as the library does, and clearing temporaries killed writers
// left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/json_text.h"
#include "telobackup/section_config.h"

using TELO::Backup::SectionConfig;
using namespace testsupport;

namespace {

Json::Value json(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(TELO::Backup::jsonFromString(value, text)) << text;
    return value;
}

const char kFile[] = "# top\n[a]\nx=1\n# in a\n[b]\ny=1\n[a]\nx=9\n[keep]\nz=1\n";

}  // namespace

TEST(UpdateSections, ReplacesEverySectionNamedInOneRewrite) {
    TempDir dir;
    const std::string file = dir.file("c.conf");
    writeFile(file, kFile, 0640);
    ASSERT_TRUE(SectionConfig::updateSections(
        file, json("{\"b\":{\"n\":null,\"y\":2},\"a\":{\"x\":2},\"new\":{\"w\":[1]}}"), true));
    // Both copies of [a] get its keys; the missing section is appended.
    EXPECT_EQ("# top\n[a]\nx=2\n# in a\n[b]\nn=null\ny=2\n[a]\nx=2\n[keep]\nz=1\n[new]\nw=[1]\n",
              readFile(file));
    EXPECT_EQ(0640, fileMode(file));
    EXPECT_EQ(std::vector<std::string>{"c.conf"}, listDir(dir.path()));

    // A missing file is made with the sections in the object's order.
    const std::string made = dir.file("made.conf");
    ASSERT_TRUE(SectionConfig::updateSections(made, json("{\"z\":{},\"m\":{\"k\":\"v\"}}"), true));
    EXPECT_EQ("[m]\nk=\"v\"\n[z]\n", readFile(made));
}

TEST(UpdateSections, RefusesBeforeTouchingTheFile) {
    TempDir dir;
    const std::string file = dir.file("c.conf");
    writeFile(file, kFile);
    SyslogCapture log("section_config");

    // A bad key in any section refuses all of them.
    errno = 0;
    EXPECT_FALSE(SectionConfig::updateSections(file, json("{\"a\":{\"x\":5},\"b\":{\"=k\":1}}"),
                                               true));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(1, log.err("invalid name [=k]")) << log.dump();

    // One missing section without create: nothing is written, nothing logged.
    clearCapturedLines();
    errno = 0;
    EXPECT_FALSE(SectionConfig::updateSections(file, json("{\"a\":{\"x\":5},\"gone\":{}}"), false));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0u, log.size()) << log.dump();

    errno = 0;
    EXPECT_FALSE(SectionConfig::updateSections(file, json("[{\"a\":{}}]"), true));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(kFile, readFile(file));
    EXPECT_EQ(std::vector<std::string>{"c.conf"}, listDir(dir.path()));

    // Nothing to update: the file is not even made.
    EXPECT_TRUE(SectionConfig::updateSections(dir.file("none.conf"), json("{}"), true));
    EXPECT_FALSE(exists(dir.file("none.conf")));
}

TEST(UpdateSections, OpenFileReadsOnlyRegularFiles) {
    TempDir dir;
    const std::string file = dir.file("c.conf");
    writeFile(file, kFile);
    std::unique_ptr<FILE, int (*)(FILE *)> in(SectionConfig::openFile(file), fclose);
    ASSERT_TRUE(in);
    char buffer[sizeof(kFile)] = {};
    EXPECT_EQ(sizeof(kFile) - 1, fread(buffer, 1, sizeof(buffer), in.get()));
    EXPECT_STREQ(kFile, buffer);
    EXPECT_NE(0, fcntl(fileno(in.get()), F_GETFD) & FD_CLOEXEC);

    // A FIFO with no writer would block a plain open; it is refused at once.
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    errno = 0;
    EXPECT_EQ(nullptr, SectionConfig::openFile(dir.file("fifo")));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, SectionConfig::openFile(dir.path()));
    EXPECT_EQ(EISDIR, errno);
    errno = 0;
    EXPECT_EQ(nullptr, SectionConfig::openFile(dir.file("missing")));
    EXPECT_EQ(ENOENT, errno);
}

TEST(UpdateSections, StaleTemporariesGoFreshOnesStay) {
    TempDir dir;
    const std::string file = dir.file("c.conf");
    writeFile(file, kFile);
    writeFile(dir.file("c.conf.Ab12Cd"), "stale");
    writeFile(dir.file("c.conf.Xy34Zw"), "fresh");
    writeFile(dir.file("c.conf.bak"), "not a temporary");
    struct timeval old[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    ASSERT_EQ(0, utimes(dir.file("c.conf.Ab12Cd").c_str(), old));
    ASSERT_EQ(0, utimes(dir.file("c.conf.bak").c_str(), old));
    errno = EDOM;
    EXPECT_EQ(1, SectionConfig::removeStaleTemporaries(file));
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ((std::vector<std::string>{"c.conf", "c.conf.Xy34Zw", "c.conf.bak"}),
              listDir(dir.path()));
}
