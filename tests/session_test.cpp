// Sessions, local and on a (fake) volume. Everything runs in a child with a private /tmp, so
// the machine's real session area is never touched; volume directories live under /var/tmp,
// outside /tmp as real volumes are.
#include "telobackup/session.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <regex>
#include <set>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"
#include "telobackup/temp_manager/temp_manager.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

const ChildOptions kPrivateTmp{.privateTmp = true};
const std::string kArea = "/tmp/telobackup/session";

bool isId(const std::string &id, const char *prefix) {
    return std::regex_match(id, std::regex(std::string(prefix) + "\\.[A-Za-z0-9]{6}"));
}

std::string linkTarget(const std::string &link) {
    char buffer[4096] = {};
    return readlink(link.c_str(), buffer, sizeof(buffer) - 1) < 0 ? "" : buffer;
}

// A fake volume whose temporary directory is `tmp`.
std::shared_ptr<FilterVolume> volumeAt(const std::string &tmp) {
    fakeplatform::outcomes().volumes = {{"/vol", TELO_FS_EXT4, 100, 1, 1}};
    fakeplatform::outcomes().shareTmpPaths["/vol"] = tmp;
    return TempManager::maxVolume(1, 2, false);
}

class Sessions : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeplatform::reset();
        setenv("TMPDIR", "/var/tmp", 1);
    }
    void TearDown() override { unsetenv("TMPDIR"); }
};

}  // namespace

TEST_F(Sessions, LocalSessionLifecycle) {
    EXPECT_CHILD_OK(
        [] {
            SyslogCapture log;
            Session session;
            CHILD_CHECK(session.create());
            std::string id = session.getId(), path = session.getPath();
            CHILD_CHECK(isId(id, "sess"));
            CHILD_CHECK_EQ(kArea + "/" + id, path);
            CHILD_CHECK_EQ(0700, fileMode(path));
            CHILD_CHECK_EQ(0700, fileMode(kArea));
            CHILD_CHECK_EQ(path, Session::getPathById(id));
            // A bound object refuses to create or load.
            CHILD_CHECK(!session.create());
            CHILD_CHECK(!session.load(id));
            CHILD_CHECK_EQ(id, session.getId());
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> session has already "
                                        "existed[" +
                                            id + "][" + path + "]"));
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> session has been "
                                        "loaded[" +
                                            id + "][" + path + "]"));
            // Found again by id from another object; the directory outlives the first one.
            writeFile(path + "/work", "data");
            Session other;
            CHILD_CHECK(other.load(id));
            CHILD_CHECK_EQ(path, other.getPath());
            CHILD_CHECK(other.destroy());
            CHILD_CHECK(!exists(path));
            CHILD_CHECK_EQ(std::string(), other.getId());
            CHILD_CHECK(other.destroy());  // unbound: nothing to do
            return std::string();
        },
        kPrivateTmp);
}

TEST_F(Sessions, VolumeSessionLifecycle) {
    EXPECT_CHILD_OK(
        [] {
            TempDir volume;
            Session session;
            CHILD_CHECK(session.create(volumeAt(volume.path())));
            std::string id = session.getId(), path = session.getPath();
            CHILD_CHECK(isId(id, "seln"));
            CHILD_CHECK_EQ(volume.path() + "/" + id, path);
            CHILD_CHECK_EQ(path, linkTarget(kArea + "/" + id));
            CHILD_CHECK_EQ(path, Session::getPathById(id));
            // load touches the directory.
            struct utimbuf old = {1000, 1000};
            CHILD_CHECK(utime(path.c_str(), &old) == 0);
            Session loaded;
            time_t before = time(nullptr);
            CHILD_CHECK(loaded.load(id));
            struct stat st;
            CHILD_CHECK(stat(path.c_str(), &st) == 0 && st.st_mtime >= before);
            // destroy removes the directory and the link; by id, a link already gone is fine.
            CHILD_CHECK(loaded.destroy());
            CHILD_CHECK(!exists(path) && !exists(kArea + "/" + id));
            CHILD_CHECK(Session::destroyById(id));
            return std::string();
        },
        kPrivateTmp);
}

TEST_F(Sessions, MissingOrMalformedIds) {
    EXPECT_CHILD_OK(
        [] {
            SyslogCapture log;
            CHILD_CHECK(Path::createIpcTempPath("session", 0700) == kArea);
            CHILD_CHECK_EQ(std::string(), Session::getPathById("seln.absent"));
            CHILD_CHECK_EQ(0u, log.size());
            Session session;
            CHILD_CHECK(!session.load("seln.absent"));
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> failed to lstat "
                                        "session[]"));
            CHILD_CHECK(!session.load("sess.absent"));
            CHILD_CHECK(!session.load(""));
            CHILD_CHECK_EQ(std::string(), Session::getPathById(""));
            CHILD_CHECK(!Session::destroyById(""));
            CHILD_CHECK_EQ(2, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> invalid parameter, "
                                        "empty session id"));
            // No id reaches outside the session area.
            writeFile("/tmp/telobackup/keep", "x");
            for (const char *bad : {"..", ".", "../keep", "sess/../../keep"}) {
                CHILD_CHECK_EQ(std::string(), Session::getPathById(bad));
                CHILD_CHECK(!Session::destroyById(bad));
            }
            CHILD_CHECK(exists("/tmp/telobackup/keep"));
            // Logged by getPathById, and again inside destroyById.
            CHILD_CHECK_EQ(8, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> invalid session "
                                        "id[<any>]"));
            return std::string();
        },
        kPrivateTmp);
}

// The volume's directory is the session area itself (reached as "//tmp/..."), so the link's name
// is always taken by the new directory: the link gets a fresh name under the lock.
TEST_F(Sessions, NameClashIsResolvedUnderTheLock) {
    EXPECT_CHILD_OK(
        [] {
            CHILD_CHECK(Path::createIpcTempPath("session", 0700) == kArea);
            Session session;
            CHILD_CHECK(session.create(volumeAt("/" + kArea)));
            std::string id = session.getId(), path = session.getPath();
            CHILD_CHECK(isId(id, "seln"));
            CHILD_CHECK(id != Path::basename(path));
            CHILD_CHECK_EQ(path, linkTarget(kArea + "/" + id));
            CHILD_CHECK_EQ(path, Session::getPathById(id));
            CHILD_CHECK_EQ(0400, fileMode(kArea + "/__sess__.lock"));
            CHILD_CHECK_EQ(3u, listDir(kArea).size());  // lock, directory, link
            CHILD_CHECK(session.destroy());
            CHILD_CHECK_EQ(1u, listDir(kArea).size());
            return std::string();
        },
        kPrivateTmp);
}

TEST_F(Sessions, PlantedLockLinkIsNeverFollowed) {
    EXPECT_CHILD_OK(
        [] {
            SyslogCapture log;
            CHILD_CHECK(Path::createIpcTempPath("session", 0700) == kArea);
            writeFile("/tmp/victim", "precious", 0644);
            CHILD_CHECK(symlink("/tmp/victim", (kArea + "/__sess__.lock").c_str()) == 0);
            Session session;
            CHILD_CHECK(!session.create(volumeAt("/" + kArea)));
            CHILD_CHECK_EQ(std::string(), session.getId());
            CHILD_CHECK_EQ(std::string("precious"), readFile("/tmp/victim"));
            CHILD_CHECK_EQ(0644, fileMode("/tmp/victim"));
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> failed to open "
                                        "file[" +
                                            kArea + "/__sess__.lock]"));
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> failed to "
                                        "create_sesslink[<any>]"));
            // Neither the new directory nor the reserved name is left behind.
            CHILD_CHECK_EQ(std::vector<std::string>{"__sess__.lock"}, listDir(kArea));
            return std::string();
        },
        kPrivateTmp);
}

// Without any directory for the filter the session is made relative to the current directory.
TEST_F(Sessions, NoVolumePathFallsBackToTheCurrentDirectory) {
    EXPECT_CHILD_OK(
        [] {
            SyslogCapture log;
            TempDir cwd;
            CHILD_CHECK(chdir(cwd.path().c_str()) == 0);
            Session session;
            CHILD_CHECK(session.create(TempManager::maxVolume(1, 2, false)));
            CHILD_CHECK_EQ(1, log.count(LOG_ERR,
                                        "(<pid>) [err] session:<line> failed to "
                                        "getVolumePath()"));
            CHILD_CHECK_EQ(cwd.path() + "/" + session.getId(), session.getPath());
            CHILD_CHECK(session.destroy());
            CHILD_CHECK(listDir(cwd.path()).empty());
            return std::string();
        },
        kPrivateTmp);
}

TEST_F(Sessions, ConcurrentVolumeSessionsGetDistinctIds) {
    EXPECT_CHILD_OK(
        [] {
            TempDir volume;
            std::shared_ptr<FilterVolume> filter = volumeAt(volume.path());
            constexpr int kPerProcess = 40;
            pid_t pids[2];
            for (pid_t &pid : pids) {
                pid = fork();
                if (pid == 0) {
                    for (int i = 0; i < kPerProcess; ++i) {
                        Session session;
                        if (!session.create(filter)) _exit(1);
                    }
                    _exit(0);
                }
            }
            for (pid_t pid : pids) {
                int status = 0;
                CHILD_CHECK(waitpid(pid, &status, 0) == pid && status == 0);
            }
            std::vector<std::string> links = listDir(kArea);
            std::set<std::string> targets;
            for (const std::string &link : links) targets.insert(linkTarget(kArea + "/" + link));
            CHILD_CHECK_EQ(size_t(2 * kPerProcess), links.size());
            CHILD_CHECK_EQ(size_t(2 * kPerProcess), targets.size());
            CHILD_CHECK_EQ(size_t(2 * kPerProcess), listDir(volume.path()).size());
            return std::string();
        },
        kPrivateTmp);
}
