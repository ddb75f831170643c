// Sessions, local and on a (fake) volume. Everything runs in a child with a private /tmp, so
// the machine's real session area is never touched; volume directories live under /var/tmp,
// outside /tmp as real volumes are.
#include "telobackup/session.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
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

TEST_F(Sessions, LocalAndVolumeLifecycles) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        Session session, other;
        CHILD_CHECK(session.create());
        std::string id = session.getId(), path = session.getPath();
        CHILD_CHECK(isId(id, "sess"));
        CHILD_CHECK_EQ(kArea + "/" + id, path);
        CHILD_CHECK(fileMode(path) == 0700 && fileMode(kArea) == 0700);
        // Found again by id from another object; destroyed with its content.
        writeFile(path + "/work", "data");
        CHILD_CHECK(other.load(id) && other.getPath() == path);
        CHILD_CHECK(other.destroy());
        CHILD_CHECK(!exists(path));

        TempDir volume;
        CHILD_CHECK(session.destroy());
        CHILD_CHECK(session.create(volumeAt(volume.path())));
        id = session.getId(), path = session.getPath();
        CHILD_CHECK(isId(id, "seln"));
        CHILD_CHECK_EQ(volume.path() + "/" + id, path);
        CHILD_CHECK_EQ(path, linkTarget(kArea + "/" + id));
        CHILD_CHECK(other.load(id));
        // destroy removes the directory and the link; by id, a link already gone is fine.
        CHILD_CHECK(other.destroy());
        CHILD_CHECK(!exists(path) && !exists(kArea + "/" + id));
        CHILD_CHECK(Session::destroyById(id));
    });
}

// No id reaches outside the session area.
TEST_F(Sessions, MissingOrMalformedIds) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        CHILD_CHECK(Path::createIpcTempPath("session", 0700) == kArea);
        CHILD_CHECK(!Session::destroyById(""));
        writeFile("/tmp/telobackup/keep", "x");
        for (const char *bad : {"..", ".", "../keep", "sess/../../keep"}) {
            CHILD_CHECK(Session::getPathById(bad).empty());
            CHILD_CHECK(!Session::destroyById(bad));
        }
        CHILD_CHECK(exists("/tmp/telobackup/keep"));
    });
}

// The volume's directory is the session area itself (reached as "//tmp/..."), so the link's name
// is always taken by the new directory: the link gets a fresh name under the lock. A link planted
// at the lock file is never followed.
TEST_F(Sessions, NameClashUnderTheLockAndAPlantedLockLink) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        SyslogCapture log{"session"};
        CHILD_CHECK(Path::createIpcTempPath("session", 0700) == kArea);
        Session session;
        CHILD_CHECK(session.create(volumeAt("/" + kArea)));
        std::string id = session.getId(), path = session.getPath();
        CHILD_CHECK(id != Path::basename(path));
        CHILD_CHECK_EQ(path, linkTarget(kArea + "/" + id));
        CHILD_CHECK(session.destroy());

        writeFile("/tmp/victim", "precious", 0644);
        CHILD_CHECK(unlink((kArea + "/__sess__.lock").c_str()) == 0);
        CHILD_CHECK(symlink("/tmp/victim", (kArea + "/__sess__.lock").c_str()) == 0);
        CHILD_CHECK(!session.create(volumeAt("/" + kArea)));
        CHILD_CHECK_EQ(std::string("precious"), readFile("/tmp/victim"));
        CHILD_CHECK_EQ(0644, fileMode("/tmp/victim"));
        CHILD_CHECK_EQ(1, log.err("failed to open file[" + kArea + "/__sess__.lock]"));
        // Neither the new directory nor the reserved name is left behind.
        CHILD_CHECK_EQ(std::vector<std::string>{"__sess__.lock"}, listDir(kArea));
    });
}

TEST_F(Sessions, ConcurrentVolumeSessionsGetDistinctIds) {
    EXPECT_CHILD_OK(kPrivateTmp, [] {
        TempDir volume;
        std::shared_ptr<FilterVolume> filter = volumeAt(volume.path());
        pid_t pids[2];
        for (pid_t &pid : pids) {
            if ((pid = fork()) == 0) {
                for (int i = 0; i < 40; ++i) {
                    if (!Session().create(filter)) _exit(1);
                }
                _exit(0);
            }
        }
        for (pid_t pid : pids) CHILD_CHECK_EQ(0, waitExitCode(pid));
        std::set<std::string> targets;
        for (const std::string &link : listDir(kArea)) {
            targets.insert(linkTarget(kArea + "/" + link));
        }
        CHILD_CHECK_EQ(80u, targets.size());
        CHILD_CHECK_EQ(80u, listDir(volume.path()).size());
    });
}
