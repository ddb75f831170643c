// The per-thread record of the last error line: what the system log got, per thread, cut only
// in the record.
#include "telobackup/last_error.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/syslog_capture.h"
#include "telobackup/option_map.h"

using TELO::Backup::lastErrorText;
using testsupport::SyslogCapture;

namespace {

// Fails with the error line "invalid sec [][<section>]".
void failLoad(const std::string &section) {
    TELO::Backup::OptionMap map;
    EXPECT_FALSE(map.optSectionLoad("", section, -1));
}

}  // namespace

TEST(LastErrorText, IsTheLineTheSystemLogGot) {
    SyslogCapture log{"option_map"};
    // Conversions in the caller's text are not expanded again.
    failLoad("%m %s");
    EXPECT_EQ(1, log.err("invalid sec [][%m %s]"));
    EXPECT_EQ(log.lines()[0].text, lastErrorText());
    // The system log gets a long line whole, the record its first 1023 bytes.
    std::string longName(3000, 'n');
    failLoad(longName);
    EXPECT_EQ(1, log.err("invalid sec [][" + longName + "]"));
    EXPECT_EQ(log.lines()[1].text.substr(0, 1023), lastErrorText());
}

// A new thread starts empty and keeps its own line.
TEST(LastErrorText, EachThreadKeepsItsOwn) {
    failLoad("main");
    std::string seen;
    std::thread([&seen] {
        seen = lastErrorText();
        failLoad("thread");
        seen += "|" + lastErrorText();
    }).join();
    EXPECT_EQ(0u, seen.find("|(")) << seen;
    EXPECT_NE(std::string::npos, seen.find("[][thread]"));
    EXPECT_NE(std::string::npos, lastErrorText().find("invalid sec [][main]"));
}
