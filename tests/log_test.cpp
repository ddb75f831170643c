// The application log holds process-wide state (the stream, once opened, is kept), so every
// scenario runs in its own child.
#include "telobackup/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::Path;
using namespace testsupport;

namespace {

// The messages of log text whose every line starts with a local timestamp taken since `from`;
// a line without one comes back marked.
std::string messages(const std::string &content, time_t from) {
    std::set<std::string> stamps;
    for (time_t t = from; t <= time(nullptr); ++t) {
        struct tm local;
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S ", localtime_r(&t, &local));
        stamps.insert(stamp);
    }
    std::string out;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) {
        out += (stamps.count(line.substr(0, 20)) ? line.substr(20) : "unstamped: " + line) + "\n";
    }
    return content.empty() || content.back() == '\n' ? out : out + "(no final newline)";
}

// vfilelog; without a format attribute, so that a null format can be passed.
void logVa(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfilelog(3, format, ap);
    va_end(ap);
}

std::string besideTheBinary() {
    return Path::join(Path::dirname(Path::getBinPath()), "Quarnix.log");
}

}  // namespace

// Lines are appended whatever their level; the path is read only while no stream is held.
TEST(FileLog, AppendsTimestampedLinesToTheFirstConfiguredFile) {
    TempDir dir;
    std::string first = dir.file("first.log"), second = dir.file("second.log");
    writeFile(first, "earlier\n", 0600);
    EXPECT_CHILD_OK([first, second] {
        time_t from = time(nullptr);
        setenv("TELO_LOGFILE", first.c_str(), 1);
        filelog(0, "same %s", "line");
        filelog(7, "same %s", "line");
        logVa("via va_list %d", 42);
        setenv("TELO_LOGFILE", second.c_str(), 1);
        filelog(3, "100%% sure");
        CHILD_CHECK_EQ(std::string("unstamped: earlier\nsame line\nsame line\nvia va_list 42\n"
                                   "100% sure\n"),
                       messages(readFile(first), from));
        CHILD_CHECK(!exists(second));
    });
}

// An empty path turns the log off (nothing beside the binary either, and no failure); a null
// format never opens the file. A write that fails is reported by the checked call, and the next
// line is not disturbed by what the failed one left behind.
TEST(FileLog, OffNullFormatAndFailedWrites) {
    TempDir dir;
    std::string path = dir.file("never.log");
    EXPECT_CHILD_OK([&dir, path] {
        CHILD_CHECK(chdir(dir.path().c_str()) == 0);
        bool existedBefore = exists(besideTheBinary());
        setenv("TELO_LOGFILE", "", 1);
        filelog(3, "nothing");
        CHILD_CHECK_EQ(0, filelogChecked(3, "off"));  // no failure either
        CHILD_CHECK(filelogChecked(3, nullptr) == -1 && errno == EINVAL);
        CHILD_CHECK(listDir(dir.path()).empty());
        CHILD_CHECK_EQ(existedBefore, exists(besideTheBinary()));
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, nullptr);
        const char *volatile noFormat = nullptr;
        logVa(noFormat);
        CHILD_CHECK(!exists(path));
        setenv("TELO_LOGFILE", "/dev/full", 1);
        filelog(3, "lost");
        CHILD_CHECK(filelogChecked(3, "lost") == -1 && errno == ENOSPC);
        CHILD_CHECK(filelogChecked(3, "%s", std::string(100000, 'x').c_str()) == -1);
    });
}

TEST(FileLog, UnwritablePathIsRetriedOnEveryCall) {
    TempDir dir;
    std::string sub = dir.file("later"), path = sub + "/app.log";
    EXPECT_CHILD_OK([sub, path] {
        time_t from = time(nullptr);
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, "lost");
        CHILD_CHECK(filelogChecked(3, "lost") == -1 && errno == ENOENT);
        CHILD_CHECK(!exists(path));
        CHILD_CHECK(mkdir(sub.c_str(), 0700) == 0);
        filelog(3, "kept");
        CHILD_CHECK_EQ(0, filelogChecked(3, "%s", "checked"));
        CHILD_CHECK_EQ(std::string("kept\nchecked\n"), messages(readFile(path), from));
    });
}

TEST(FileLog, DefaultsToTheExecutablesDirectory) {
    std::string beside = besideTheBinary();
    if (exists(beside)) GTEST_SKIP() << beside << " already exists";
    if (access(Path::dirname(beside).c_str(), W_OK) != 0) {
        GTEST_SKIP() << "the test binary's directory is not writable";
    }
    ChildResult result = runInChild([beside] {
        time_t from = time(nullptr);
        unsetenv("TELO_LOGFILE");
        filelog(3, "beside the binary");
        CHILD_CHECK_EQ(std::string("beside the binary\n"), messages(readFile(beside), from));
    });
    unlink(beside.c_str());
    EXPECT_TRUE(result.ok()) << result.message;
}

// After the file is renamed away (as logrotate does), lines go on into it until the log is
// reopened; then a new file of the old name takes them, under the same descriptor.
TEST(FileLog, ReopenFollowsRotation) {
    TempDir dir;
    std::string path = dir.file("app.log"), rotated = dir.file("app.log.1");
    EXPECT_CHILD_OK([path, rotated] {
        time_t from = time(nullptr);
        CHILD_CHECK_EQ(0, filelogReopen());  // nothing open yet: nothing to do
        CHILD_CHECK(!exists(path));
        setenv("TELO_LOGFILE", path.c_str(), 1);
        std::set<int> fds = openFds();
        filelog(3, "first");
        int logFd = -1;
        for (int fd : openFds()) logFd = fds.count(fd) ? logFd : fd;
        CHILD_CHECK(logFd > 2);
        fds = openFds();
        CHILD_CHECK(rename(path.c_str(), rotated.c_str()) == 0);
        filelog(3, "still old");
        CHILD_CHECK_EQ(0, filelogReopen());
        filelog(3, "new");
        CHILD_CHECK_EQ(std::string("first\nstill old\n"), messages(readFile(rotated), from));
        CHILD_CHECK_EQ(std::string("new\n"), messages(readFile(path), from));
        CHILD_CHECK(fds == openFds());
        struct stat held, named;
        CHILD_CHECK(fstat(logFd, &held) == 0 && stat(path.c_str(), &named) == 0);
        CHILD_CHECK(held.st_ino == named.st_ino);
        CHILD_CHECK(fcntl(logFd, F_GETFD) & FD_CLOEXEC);

        // A file that cannot be opened keeps the old one in use.
        CHILD_CHECK(rename(path.c_str(), rotated.c_str()) == 0 && mkdir(path.c_str(), 0700) == 0);
        CHILD_CHECK(filelogReopen() == -1 && errno == EISDIR);
        filelog(3, "kept");
        CHILD_CHECK_EQ(std::string("new\nkept\n"), messages(readFile(rotated), from));

        // From a signal handler, as a daemon's SIGHUP would.
        CHILD_CHECK(rmdir(path.c_str()) == 0);
        struct sigaction action = {};
        action.sa_handler = [](int) {
            int saved = errno;
            filelogReopen();
            errno = saved;
        };
        sigaction(SIGHUP, &action, nullptr);
        raise(SIGHUP);
        filelog(3, "after hangup");
        CHILD_CHECK_EQ(std::string("after hangup\n"), messages(readFile(path), from));
    });
    // The target "stderr" writes there, and is never reopened.
    std::string capture = dir.file("stderr.txt");
    EXPECT_CHILD_OK([capture] {
        time_t from = time(nullptr);
        int fd = open(capture.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        CHILD_CHECK(dup2(fd, 2) == 2);
        setenv("TELO_LOGFILE", "stderr", 1);
        filelog(3, "to stderr %d", 1);
        CHILD_CHECK_EQ(0, filelogReopen());
        CHILD_CHECK(fcntl(2, F_GETFD) == 0);
        filelog(3, "again");
        CHILD_CHECK_EQ(std::string("to stderr 1\nagain\n"), messages(readFile(capture), from));
    });
}

// Threads (and another process) writing long and short lines at once while the log is rotated
// and reopened: every line of both files is one writer's whole line.
TEST(FileLog, ConcurrentLinesNeverInterleave) {
    TempDir dir;
    std::string path = dir.file("busy.log");
    EXPECT_CHILD_OK([&dir, path] {
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, "start");
        const int kLines = 400;
        auto writer = [](char c) {
            std::string longText(9000, c), shortText(40, c);
            for (int i = 0; i < kLines; ++i) {
                filelog(3, "%s|%s", (i % 2 != 0 ? longText : shortText).c_str(), "end");
            }
        };
        pid_t other = fork();
        if (other == 0) {
            writer('p');
            _exit(0);
        }
        std::thread a(writer, 'a'), b(writer, 'b');
        std::thread rotator([path] {
            for (int i = 0; i < 20; ++i) {
                rename(path.c_str(), (path + "." + std::to_string(i)).c_str());
                filelogReopen();
            }
        });
        a.join();
        b.join();
        rotator.join();
        CHILD_CHECK_EQ(0, waitExitCode(other));
        std::map<char, int> counts;
        for (const std::string &name : listDir(dir.path())) {
            std::istringstream in(readFile(dir.file(name)));
            for (std::string line; std::getline(in, line);) {
                std::string text = line.substr(std::min<size_t>(20, line.size()));
                if (text == "start") continue;
                size_t bar = text.find('|');
                CHILD_CHECK(bar == 40 || bar == 9000);
                CHILD_CHECK(text.substr(bar) == "|end");
                CHILD_CHECK(text.find_first_not_of(text[0]) == bar);
                ++counts[text[0]];
            }
        }
        CHILD_CHECK((std::map<char, int>{{'a', kLines}, {'b', kLines}, {'p', kLines}}) == counts);
    });
}
