#include "telobackup/path/path_telo.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "support/fake_platform.h"
#include "support/syslog_capture.h"

using TELO::Backup::Path;
using testsupport::SyslogCapture;

TEST(PathTelo, ShareNameFromThePlatform) {
    fakeplatform::reset();
    SyslogCapture log;
    fakeplatform::outcomes().shareName = "photos";
    EXPECT_EQ("photos", Path::getShareName("/volume1/photos/2024"));
    EXPECT_EQ(492, fakeplatform::outcomes().shareNameSize);
    EXPECT_EQ(4095, fakeplatform::outcomes().sharePathSize);
    // A name that fills the whole buffer comes back whole.
    fakeplatform::outcomes().shareName = std::string(491, 'n');
    EXPECT_EQ(std::string(491, 'n'), Path::getShareName("/x"));
    EXPECT_EQ(0u, log.size()) << log.dump();

    fakeplatform::setFail("TELOShareNamePathGet", true, TELO_ERR_NOT_FOUND);
    EXPECT_EQ("", Path::getShareName("/nowhere/x"));
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] path/path_telo:<line> Error: getting share path of "
                           "[/nowhere/x] failed[0x0002 fake_platform.cpp:<line>]"))
        << log.dump();
    fakeplatform::reset();
}

TEST(PathTelo, EaDirComponents) {
    struct {
        const char *path;
        bool inside;
    } cases[] = {
        {"/s/@eaDir/f", true},      {"@eaDir", true},
        {"/s/@eaDir", true},        {"@eaDir/f", true},
        {"/s/@eaDir/", true},       {"/s/@eaDir@eaDir/@eaDir", true},
        {"/s/x@eaDir/f", false},    {"/s/@eaDirX", false},
        {"/s/@eaDi", false},        {"", false},
        {"/s/@eaDir@eaDir", false},
    };
    for (const auto &c : cases) EXPECT_EQ(c.inside, Path::isInTeloEaDir(c.path)) << c.path;
}
