// The application log holds process-wide state (the stream, once opened, is kept), so every
// scenario runs in its own child.
#include "telobackup/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <regex>

#include "support/child.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using namespace testsupport;

namespace {

// Lines of a log file with their timestamp prefixes checked and removed.
std::string stripTimestamps(const std::string &content, time_t from, time_t to, bool &ok) {
    static const std::regex kLine(R"((\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d) ([^\n]*)\n)");
    std::string out;
    ok = true;
    auto it = std::sregex_iterator(content.begin(), content.end(), kLine);
    size_t consumed = 0;
    for (; it != std::sregex_iterator(); ++it) {
        const std::smatch &m = *it;
        if (static_cast<size_t>(m.position()) != consumed) ok = false;
        consumed = static_cast<size_t>(m.position() + m.length());
        struct tm t = {};
        t.tm_year = std::stoi(m[1]) - 1900;
        t.tm_mon = std::stoi(m[2]) - 1;
        t.tm_mday = std::stoi(m[3]);
        t.tm_hour = std::stoi(m[4]);
        t.tm_min = std::stoi(m[5]);
        t.tm_sec = std::stoi(m[6]);
        t.tm_isdst = -1;
        time_t when = mktime(&t);
        if (when < from || when > to) ok = false;
        out += m[7].str() + "\n";
    }
    if (consumed != content.size()) ok = false;
    return out;
}

void logVa(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logVa(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfilelog(3, format, ap);
    va_end(ap);
}

void logNullFormat(int dummy, ...) {
    va_list ap;
    va_start(ap, dummy);
    const char *volatile noFormat = nullptr;
    vfilelog(3, noFormat, ap);
    va_end(ap);
}

}  // namespace

TEST(FileLog, AppendsTimestampedLinesToConfiguredFile) {
    TempDir dir;
    std::string path = dir.file("app.log");
    writeFile(path, "", 0600);
    EXPECT_CHILD_OK([path] {
        setenv("TELO_LOGFILE", path.c_str(), 1);
        time_t from = time(nullptr);
        filelog(0, "same %s", "line");
        filelog(7, "same %s", "line");
        logVa("via va_list %d", 42);
        filelog(3, "100%% sure");
        time_t to = time(nullptr);
        bool ok = false;
        std::string lines = stripTimestamps(readFile(path), from, to, ok);
        CHILD_CHECK(ok);
        CHILD_CHECK_EQ(std::string("same line\nsame line\nvia va_list 42\n100% sure\n"), lines);
        return std::string();
    });
}

TEST(FileLog, AppendsToExistingContentAndKeepsTheFirstStream) {
    TempDir dir;
    std::string first = dir.file("first.log"), second = dir.file("second.log");
    writeFile(first, "earlier\n", 0600);
    EXPECT_CHILD_OK([first, second] {
        setenv("TELO_LOGFILE", first.c_str(), 1);
        filelog(1, "one");
        // The path is read only while no stream is held.
        setenv("TELO_LOGFILE", second.c_str(), 1);
        filelog(1, "two");
        bool ok = false;
        std::string content = readFile(first);
        CHILD_CHECK(content.rfind("earlier\n", 0) == 0);
        CHILD_CHECK_EQ(std::string("one\ntwo\n"),
                       stripTimestamps(content.substr(8), 0, time(nullptr), ok));
        CHILD_CHECK(ok);
        CHILD_CHECK(!exists(second));
        return std::string();
    });
}

TEST(FileLog, StderrTarget) {
    TempDir dir;
    std::string capture = dir.file("stderr.txt");
    EXPECT_CHILD_OK([capture] {
        int fd = open(capture.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        CHILD_CHECK(fd >= 0 && dup2(fd, 2) == 2);
        setenv("TELO_LOGFILE", "stderr", 1);
        filelog(3, "to stderr %d", 1);
        bool ok = false;
        CHILD_CHECK_EQ(std::string("to stderr 1\n"),
                       stripTimestamps(readFile(capture), 0, time(nullptr), ok));
        CHILD_CHECK(ok);
        return std::string();
    });
}

TEST(FileLog, EmptyPathTurnsTheLogOffAndNullFormatWritesNothing) {
    TempDir dir;
    std::string path = dir.file("never.log");
    EXPECT_CHILD_OK([&dir, path] {
        CHILD_CHECK(chdir(dir.path().c_str()) == 0);
        std::string besideBinary = TELO::Backup::Path::join(
            TELO::Backup::Path::dirname(TELO::Backup::Path::getBinPath()), "Quarnix.log");
        bool existedBefore = exists(besideBinary);
        setenv("TELO_LOGFILE", "", 1);
        filelog(3, "nothing");
        CHILD_CHECK(listDir(dir.path()).empty());
        CHILD_CHECK_EQ(existedBefore, exists(besideBinary));
        // A null format never opens the file.
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, nullptr);
        logNullFormat(0);
        CHILD_CHECK(!exists(path));
        return std::string();
    });
}

TEST(FileLog, UnwritablePathIsRetriedOnEveryCall) {
    TempDir dir;
    std::string sub = dir.file("later");
    std::string path = sub + "/app.log";
    EXPECT_CHILD_OK([sub, path] {
        setenv("TELO_LOGFILE", path.c_str(), 1);
        filelog(3, "lost");
        CHILD_CHECK(!exists(path));
        CHILD_CHECK(mkdir(sub.c_str(), 0700) == 0);
        filelog(3, "kept");
        bool ok = false;
        CHILD_CHECK_EQ(std::string("kept\n"),
                       stripTimestamps(readFile(path), 0, time(nullptr), ok));
        CHILD_CHECK(ok);
        return std::string();
    });
}

TEST(FileLog, DefaultsToTheExecutablesDirectory) {
    std::string besideBinary = TELO::Backup::Path::join(
        TELO::Backup::Path::dirname(TELO::Backup::Path::getBinPath()), "Quarnix.log");
    if (exists(besideBinary)) GTEST_SKIP() << besideBinary << " already exists";
    if (access(TELO::Backup::Path::dirname(besideBinary).c_str(), W_OK) != 0) {
        GTEST_SKIP() << "the test binary's directory is not writable";
    }
    ChildResult result = runInChild([besideBinary] {
        unsetenv("TELO_LOGFILE");
        filelog(3, "beside the binary");
        bool ok = false;
        CHILD_CHECK_EQ(std::string("beside the binary\n"),
                       stripTimestamps(readFile(besideBinary), 0, time(nullptr), ok));
        CHILD_CHECK(ok);
        return std::string();
    });
    unlink(besideBinary.c_str());
    EXPECT_TRUE(result.ok()) << result.message;
}
