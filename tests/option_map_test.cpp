// OptionMap values, secrets (through the fake platform), binding to sections, the lock and
// identifier allocation, including several processes allocating at once.
#include "telobackup/option_map.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <set>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"

using TELO::Backup::OptionMap;
using TELO::Backup::Path;
using namespace testsupport;

namespace {

class OptionMapTest : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
    // `content` written to the file, `change` run, the file read back.
    std::string after(const std::string &content, const std::function<void()> &change) {
        writeFile(file, content);
        change();
        return readFile(file);
    }
    TempDir dir;
    std::string file = dir.file("c.conf");
    SyslogCapture log{"option_map"};
    // The directory holds exactly the config file: no temporary was left beside it.
    void expectAlone() { EXPECT_EQ(std::vector<std::string>{"c.conf"}, listDir(dir.path())); }
};

// Where a map is bound: "name#id", and " loaded" when its section was read.
std::string binding(const OptionMap &map) {
    return map.optSectionGetName() + "#" + std::to_string(map.optSectionGetId()) +
           (map.optIsLoaded() ? " loaded" : "");
}

}  // namespace

// A value no int holds reads as the default where a conversion would throw; a text
// nested past the reader's limit does not parse, and a failed load leaves the map.
TEST_F(OptionMapTest, HostileValuesReadAsMissing) {
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    OptionMap map;
    ASSERT_TRUE(map.optLoadJsonString("{\"k\":1}"));
    EXPECT_FALSE(map.optLoadJsonString("{\"e\":" + deep + "}"));
    EXPECT_EQ("{\"k\":1}", map.optToJsonString());

    ASSERT_TRUE(map.optLoadJsonString(R"({"u":4294967295})"));
    EXPECT_EQ(7, map.optInt("u", 7));
}

// A failed encryption stores "", never the plain text.
TEST_F(OptionMapTest, SecretsAndTheirFailures) {
    OptionMap map;
    map.optSet("p", "pw", true);
    EXPECT_EQ("2a2d", map.optString("p", ""));  // the fake cipher: hex of byte ^ 0x5A
    EXPECT_EQ("pw", map.optSecret("p", "def"));
    fakeplatform::setFail("TLIBCCryptSzEncrypt");
    EXPECT_TRUE(map.optSet("q", std::string("x"), true));
    EXPECT_EQ("", map.optString("q", "def"));
    EXPECT_EQ(1, log.err("TLIBCCryptSzEncrypt: [0x0004 fake_platform.cpp:<line>]"));
}

TEST_F(OptionMapTest, LoadSaveRemoveAndBinding) {
    OptionMap map;
    EXPECT_EQ("[job3]\nname=\"n\"\nx=true\n[other]\nk=1\n",
              after("[job3]\nname=\"n\"\n[other]\nk=1\n", [&] {
                  ASSERT_TRUE(map.optSectionLoad(file, "job", 3));
                  EXPECT_EQ("job3#3 loaded", binding(map));
                  map.optSet("x", true);
                  EXPECT_TRUE(map.optSectionSave());
              }));
    EXPECT_TRUE(map.optSectionRemove());
    EXPECT_EQ("[other]\nk=1\n", readFile(file));
}

// Exit 0 when the lock file of args[0] is free, 42 when another holder has it.
TELO_TEST_HELPER(trylock) {
    int fd = Path::createIpcLockFile(args[0]);
    if (fd < 0) return 1;
    return flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 42;
}

// Lock and unlock by hand and through the guard: who holds what after each step, as another
// process sees it. The guard releases when it goes out of scope.
TEST_F(OptionMapTest, LockAndScopedLock) {
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        auto holderOf = [] { return runCommand(helperCommand("trylock", {"tok"})).exitCode; };
        OptionMap byHand, map;
        CHILD_CHECK(byHand.setLockToken("tok") && map.setLockToken("tok"));
        CHILD_CHECK(byHand.lock());
        CHILD_CHECK_EQ(42, holderOf());
        CHILD_CHECK(!byHand.lock() && !byHand.setLockToken("other"));
        CHILD_CHECK(byHand.unlock());
        CHILD_CHECK_EQ(0, holderOf());
        CHILD_CHECK(!byHand.unlock());
        {
            OptionMap::ScopedLock guard(map);
            CHILD_CHECK(guard.owns());
            // A second guard on the same map fails as a second lock() does, and leaves the
            // first hold alone when it goes.
            CHILD_CHECK(!OptionMap::ScopedLock(map));
            CHILD_CHECK_EQ(42, holderOf());
        }
        CHILD_CHECK_EQ(0, holderOf());
    });
}

TEST_F(OptionMapTest, UniqueAndIncreasingIds) {
    writeFile(file, "[job1]\n[job5]\n[jobx]\n[job]\n[other7]\n");
    EXPECT_EQ(6, OptionMap::optSectionGetUniqueId(file, "job"));
    // A hand-written file whose last line lacks its "\n": the header must not join that line.
    EXPECT_EQ("[a]\nkeep=3\n[job1]\n", after("[a]\nkeep=3", [&] {
                  EXPECT_EQ(1, OptionMap::optSectionGetUniqueId(file, "job"));
              }));
}

// The next number follows the counter or the sections in use, whichever is larger; a missing
// counter is added. Other keys, sections and comments stay. A failure changes nothing and binds
// nothing.
TEST_F(OptionMapTest, NextIdFollowsCounterOrSections) {
    struct Row {
        const char *before, *after, *bound;
    };
    const Row rows[] = {
        {"[global]\njobid_max=9\n[job3]\n", "[global]\njobid_max=10\n[job3]\n[job10]\n",
         "job10#10"},
        {"#top\n[global]\nother=\"x\"\njobid_max=2\n[job4]\n[side]\ns=1",
         "#top\n[global]\njobid_max=5\nother=\"x\"\n[job4]\n[side]\ns=1\n[job5]\n", "job5#5"},
        {"[job3]\n", "[job3]\n[global]\njobid_max=4\n[job4]\n", "job4#4"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.before);
        OptionMap saved;
        EXPECT_EQ(row.after, after(row.before, [&] {
                      EXPECT_TRUE(saved.optSectionCreateAndSave(file, "job", true));
                  }));
        EXPECT_EQ(row.bound, binding(saved));
    }
    EXPECT_EQ(0u, log.size()) << log.dump();

    OptionMap loaded, other;
    writeFile(file, "[job2147483647]\n");
    ASSERT_TRUE(loaded.optSectionLoad(file, "job2147483647", -1));
    EXPECT_FALSE(loaded.optSectionCreateAndSave(file, "job", true) || errno != EINVAL);
    EXPECT_FALSE(other.optSectionCreateAndSave(file, "job", true) || errno != EOVERFLOW);
    EXPECT_EQ(1, log.err("no id left for [job]"));
    EXPECT_EQ("#-1", binding(other));
    EXPECT_EQ("[job2147483647]\n", readFile(file));
    expectAlone();
}

namespace {

// One read of `file` through one descriptor, so one version of it: the number of sections, or -1
// when one of them holds no key (the file's own lines are normalised).
int sectionsOrEmpty(const std::string &file) {
    std::ifstream in(file);
    int sections = 0;
    bool open = false;  // a section line not yet followed by a key
    for (std::string line; std::getline(in, line);) {
        bool section = !line.empty() && line[0] == '[';
        if (section && open) return -1;
        sections += section;
        open = section;
    }
    return open ? -1 : sections;
}

}  // namespace

// Processes sharing a lock token get distinct identifiers: 4 processes each creating 100
// sections with values, half of them raising the counter, while a reader watches. The reader
// never sees a section without its values, nor the counter section without its counter.
TEST_F(OptionMapTest, ProcessesSharingALockGetDistinctIds) {
    const std::string path = file;
    EXPECT_CHILD_OK([&] {
        std::vector<pid_t> writers(4);
        for (pid_t &pid : writers) {
            if ((pid = fork()) != 0) continue;
            for (int i = 0; i < 100; ++i) {
                OptionMap map;
                map.optSet("n", i);
                if (!map.setLockToken("one-step") ||
                    !map.optSectionCreateAndSave(path, "job", i % 2 == 0)) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        // Read beside them until they have all ended.
        int status, failedWriters = 0;
        for (size_t ended = 0; ended < writers.size();) {
            CHILD_CHECK(sectionsOrEmpty(path) >= 0);
            if (waitpid(-1, &status, WNOHANG) > 0) {
                ++ended;
                failedWriters += status != 0;
            }
        }
        CHILD_CHECK_EQ(0, failedWriters);
        // Every section once: 400 distinct identifiers and the counter.
        std::list<std::string> names;
        CHILD_CHECK(OptionMap::optSectionListName(path, names) && names.size() == 401u);
        CHILD_CHECK_EQ(401u, std::set<std::string>(names.begin(), names.end()).size());
        CHILD_CHECK_EQ(401, sectionsOrEmpty(path));
    });
}

// The header append reads the file's last byte to know whether the last line was ended; when
// that read fails, the append fails instead of guessing.
TEST_F(OptionMapTest, HeaderAppendFailsWhenTheLastByteCannotBeRead) {
    writeFile(file, "[a]\nk=1");
    const std::string path = file;
    EXPECT_CHILD_OK([&path] {
        SyslogCapture childLog{"option_map"};
        if (!failSystemCall(__NR_pread64, EIO)) return;  // no seccomp: nothing to check
        CHILD_CHECK_EQ(-1, OptionMap::optSectionGetUniqueId(path, "job"));
        CHILD_CHECK_EQ(EIO, errno);
        CHILD_CHECK_EQ(1, childLog.err("read last byte failed, Input/output error"));
    });
    EXPECT_EQ("[a]\nk=1", readFile(file));
}

// Temporaries of killed writers (10 minutes old) go at the next write that holds the lock, and
// only then: a writer without the lock cannot know that no other writer owns them.
TEST_F(OptionMapTest, LockedWritesClearOldTemporaries) {
    const std::string path = file, stale = dir.file("c.conf.Ab12Cd");
    EXPECT_CHILD_OK([&] {
        writeFile(path, "[s]\n");
        writeFile(stale, "killed", 0600);
        const timespec old[2] = {{time(nullptr) - 11 * 60, 0}, {time(nullptr) - 11 * 60, 0}};
        CHILD_CHECK(utimensat(AT_FDCWD, stale.c_str(), old, 0) == 0);
        OptionMap map;
        CHILD_CHECK(map.optSectionLoad(path, "s", -1) && map.optSectionSave());
        CHILD_CHECK(exists(stale));
        CHILD_CHECK(map.setLockToken("stale-test") && map.optSectionSave());
    });
    expectAlone();
}
