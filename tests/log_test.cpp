// The application log holds process-wide state (the stream, once opened, is kept), so every
// scenario runs in its own child.
#include "telobackup/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

// Log text without the local timestamps that start its lines.
std::string messages(const std::string &content) {
    static const std::regex stamp("(^|\n)\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d ");
    return std::regex_replace(content, stamp, "$1");
}

// vfilelog; without a format attribute, so that a null format can be passed.
void logVa(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfilelog(3, format, ap);
    va_end(ap);
}

}  // namespace

// All three writers append whole stamped lines whatever the level; the path is read only while
// no stream is held. An empty path turns the log off, a null format never opens the file, and a
// failed write is reported by the checked call only.
TEST(FileLog, WritersOffSwitchAndFailedWrites) {
    TempDir dir;
    std::string first = dir.file("first.log"), second = dir.file("second.log");
    writeFile(first, "earlier\n", 0600);
    EXPECT_CHILD_OK([first, second] {
        setenv("TELO_LOGFILE", second.c_str(), 1);
        const char *volatile noFormat = nullptr;
        logVa(noFormat);
        filelog(3, nullptr);
        setenv("TELO_LOGFILE", first.c_str(), 1);
        filelog(0, "same %s", "line");
        filelog(7, "same %s", "line");
        logVa("via va_list %d", 42);
        setenv("TELO_LOGFILE", second.c_str(), 1);
        CHILD_CHECK_EQ(0, filelogChecked(3, "100%% sure"));
        CHILD_CHECK_EQ(std::string("earlier\nsame line\nsame line\nvia va_list 42\n"
                                   "100% sure\n"),
                       messages(readFile(first)));
        CHILD_CHECK(!exists(second));
    });
    EXPECT_CHILD_OK([&dir] {
        CHILD_CHECK(chdir(dir.path().c_str()) == 0);
        setenv("TELO_LOGFILE", "", 1);
        CHILD_CHECK_EQ(0, filelogChecked(3, "off"));
        CHILD_CHECK_EQ(std::vector<std::string>{"first.log"}, listDir(dir.path()));
        setenv("TELO_LOGFILE", "/dev/full", 1);
        filelog(3, "lost");
        CHILD_CHECK(filelogChecked(3, "lost") == -1 && errno == ENOSPC);
    });
}

// After the file is renamed away (as logrotate does), lines go on into it until the log is
// reopened; then a new file of the old name takes them, under the same descriptor. A file that
// cannot be opened keeps the old one in use.
TEST(FileLog, ReopenFollowsRotation) {
    TempDir dir;
    std::string path = dir.file("app.log"), rotated = dir.file("app.log.1");
    EXPECT_CHILD_OK([path, rotated] {
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, "first");
        std::set<int> fds = openFds();
        CHILD_CHECK(rename(path.c_str(), rotated.c_str()) == 0);
        filelog(3, "still old");
        CHILD_CHECK_EQ(0, filelogReopen());
        filelog(3, "new");
        CHILD_CHECK_EQ(std::string("first\nstill old\n"), messages(readFile(rotated)));
        CHILD_CHECK_EQ(std::string("new\n"), messages(readFile(path)));
        CHILD_CHECK(fds == openFds());
        CHILD_CHECK(rename(path.c_str(), rotated.c_str()) == 0 && mkdir(path.c_str(), 0700) == 0);
        CHILD_CHECK(filelogReopen() == -1 && errno == EISDIR);
        filelog(3, "kept");
        CHILD_CHECK_EQ(std::string("new\nkept\n"), messages(readFile(rotated)));
    });
}

// Threads (and another process) writing long and short lines at once while the log is rotated
// and reopened: every line of all files is one writer's whole line, and none is lost.
TEST(FileLog, ConcurrentLinesNeverInterleave) {
    TempDir dir;
    std::string path = dir.file("busy.log");
    EXPECT_CHILD_OK([&dir, path] {
        setenv("TELO_LOGFILE", path.c_str(), 1);
        const int kLines = 400;
        auto writer = [](char c) {
            for (int i = 0; i < kLines; ++i) {
                filelog(3, "%s|end", std::string(i % 2 != 0 ? 9000 : 40, c).c_str());
            }
        };
        pid_t other = fork();
        if (other == 0) {
            writer('p');
            _exit(0);
        }
        std::thread a(writer, 'a'), rotator([path] {
            for (int i = 0; i < 20; ++i) {
                rename(path.c_str(), (path + "." + std::to_string(i)).c_str());
                filelogReopen();
            }
        });
        a.join();
        rotator.join();
        CHILD_CHECK_EQ(0, waitExitCode(other));
        std::map<char, int> counts;
        for (const std::string &name : listDir(dir.path())) {
            std::istringstream in(readFile(dir.file(name)));
            for (std::string line; std::getline(in, line);) {
                std::string text = line.substr(std::min<size_t>(20, line.size()));
                size_t bar = text.find('|');
                CHILD_CHECK((bar == 40 || bar == 9000) && text.substr(bar) == "|end");
                CHILD_CHECK(text.find_first_not_of(text[0]) == bar);
                ++counts[text[0]];
            }
        }
        CHILD_CHECK((std::map<char, int>{{'a', kLines}, {'p', kLines}}) == counts);
    });
}
