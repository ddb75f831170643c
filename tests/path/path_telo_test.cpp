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
    EXPECT_EQ("photos", Path::getShareName("/srv/photos/2024"));
    fakeplatform::setFail("TELOShareNamePathGet", TELO_ERR_NOT_FOUND);
    EXPECT_EQ("", Path::getShareName("/nowhere/x"));
    EXPECT_EQ(1, log.count(LOG_ERR,
                           "(<pid>) [err] path/path_telo:<line> Error: getting share path of "
                           "[/nowhere/x] failed[0x0002 fake_platform.cpp:<line>]"))
        << log.dump();
}

TEST(PathTelo, EaDirComponents) {
    EXPECT_TRUE(Path::isInTeloEaDir("/s/@eaDir/f"));
    EXPECT_TRUE(Path::isInTeloEaDir("@eaDir"));
    EXPECT_FALSE(Path::isInTeloEaDir("/s/x@eaDir/f"));
    EXPECT_FALSE(Path::isInTeloEaDir("/s/@eaDirX"));
}
