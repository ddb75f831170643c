// OptionMap values, secrets (through the fake platform), binding to sections, the lock and
// identifier allocation, including several processes allocating at once.
#include "telobackup/option_map.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <set>

#include "support/child.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"

using TELO::Backup::OptionMap;
using TELO::Backup::Path;
using namespace testsupport;

namespace {

class OptionMapTest : public ::testing::Test {
  protected:
    void SetUp() override { fakeplatform::reset(); }
    TempDir dir;
    std::string file = dir.file("c.conf");
    SyslogCapture log{"option_map"};
};

}  // namespace

// A value of another type reads as missing, whatever the getter; a text nested past the
// reader's limit does not parse. Nothing throws.
TEST_F(OptionMapTest, HostileValuesReadAsMissing) {
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    OptionMap map;
    ASSERT_TRUE(map.optLoadJsonString("{\"k\":1}"));
    EXPECT_FALSE(map.optLoadJsonString("{\"e\":" + deep + "}"));
    EXPECT_FALSE(map.optLoadJsonString("[1]"));  // not an object
    EXPECT_TRUE(map.optAppendJsonString("{\"e\":" + deep + "}"));
    EXPECT_EQ("{\"k\":1}", map.optToJsonString());

    ASSERT_TRUE(map.optLoadJsonString(
        R"({"s":"abc","big":1e10,"huge":1e300,"real":-2.5,"t":true,"n":null,"u":4294967295,)"
        R"("u64":18446744073709551615,"a":[1,{"x":1}],"o":{"k":"v"},"la":["x",2,true]})"));
    struct Row {
        const char *key, *text;  // optString, "D" for the default
        int number;              // optInt, 7 for the default
        const char *flag;        // optBool: "t", "f", or "D"
        const char *wide;        // optGet(long long &) as text, "D" when false
    };
    // clang-format off
    const Row rows[] = {
        {"s", "abc", 7, "D", "D"},              {"big", "10000000000.0", 7, "t", "10000000000"},
        {"huge", "1.0000000000000001e+300", 7, "t", "D"},       {"real", "-2.5", -2, "t", "-2"},
        {"t", "true", 1, "t", "1"},              {"n", "", 0, "f", "0"},
        {"u", "4294967295", 7, "t", "4294967295"}, {"u64", "18446744073709551615", 7, "t", "D"},
        {"a", "D", 7, "D", "D"},                 {"o", "D", 7, "D", "D"},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.key);
        EXPECT_EQ(row.text, map.optString(row.key, "D"));
        if (std::string(row.text) == "D") {
            EXPECT_EQ("D", map.optSecret(row.key, "D"));
        }
        EXPECT_EQ(row.number, map.optInt(row.key, 7));
        bool flagDefaulted = map.optBool(row.key, true) && !map.optBool(row.key, false);
        EXPECT_EQ(row.flag, std::string(flagDefaulted                 ? "D"
                                        : map.optBool(row.key, false) ? "t"
                                                                      : "f"));
        long long wide = 99;
        bool got = map.optGet(row.key, wide);
        EXPECT_EQ(row.wide, got ? std::to_string(wide) : std::string("D"));
        EXPECT_TRUE(got || wide == 99);
        std::string text = "keep";
        int number = 99;
        bool flag = true;
        EXPECT_EQ(std::string(row.text) != "D", map.optGet(row.key, text));
        EXPECT_EQ(row.number != 7, map.optGet(row.key, number));
        EXPECT_EQ(std::string(row.flag) != "D", map.optGet(row.key, flag));
    }
    EXPECT_EQ(0, fakeplatform::calls("TLIBCCryptSzDecrypt"));
    std::list<std::string> list{"stale"};
    EXPECT_FALSE(map.optGet("a", list));
    EXPECT_EQ(std::list<std::string>{"stale"}, list);
    EXPECT_TRUE(map.optGet("la", list));
    EXPECT_EQ((std::list<std::string>{"x", "2", "true"}), list);
    char buffer[3] = "z";
    EXPECT_TRUE(map.optGet("s", buffer, sizeof(buffer)));  // cut to fit, always ended
    EXPECT_STREQ("ab", buffer);

    // A counter that is no int counts as 0: the next number follows the sections in use.
    for (const std::string &counter : std::vector<std::string>{"\"abc\"", "1e10", "{}", deep}) {
        SCOPED_TRACE(counter);
        writeFile(file, "[global]\njobid_max=" + counter + "\n[job3]\n");
        OptionMap created;
        ASSERT_TRUE(created.optSectionCreateIncreaseId(file, "job"));
        EXPECT_EQ("job4", created.optSectionGetName());
        EXPECT_EQ("[global]\njobid_max=4\n[job3]\n[job4]\n", readFile(file));
    }
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(OptionMapTest, SecretsAndTheirFailures) {
    OptionMap map;
    map.optSet("p", "pw", true);
    EXPECT_EQ("2a2d", map.optString("p", ""));  // the fake cipher: hex of byte ^ 0x5A
    EXPECT_EQ("pw", map.optSecret("p", "def"));
    fakeplatform::setFail("TLIBCCryptSzEncrypt");
    EXPECT_TRUE(map.optSet("q", std::string("x"), true));
    EXPECT_EQ("", map.optString("q", "def"));
    EXPECT_EQ(1, log.err("TLIBCCryptSzEncrypt: [0x0004 fake_platform.cpp:<line>]"));
    EXPECT_EQ("", map.optSecret("q", "def"));  // empty: the platform is not asked
    EXPECT_EQ(1, fakeplatform::calls("TLIBCCryptSzDecrypt"));
    map.optSet("bad", "zzz");
    std::string out = "keep";
    EXPECT_TRUE(map.optGet("bad", out, true));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ("", map.optSecret("bad", "def"));
    EXPECT_EQ(2, log.err("TLIBCCryptSzDecrypt: [0x0008 fake_platform.cpp:<line>]"));
    clearCapturedLines();
    fakeplatform::reset();

    // The checked variants fail where the plain ones store or read "", and leave the reason.
    ASSERT_TRUE(map.optSetSecretChecked("p", "pw"));
    EXPECT_EQ("2a2d", map.optString("p", ""));
    EXPECT_TRUE(map.optGetSecretChecked("p", out));
    EXPECT_EQ("pw", out);

    fakeplatform::setFail("TLIBCCryptSzEncrypt", TELO_ERR_KEY_MODE);
    EXPECT_FALSE(map.optSetSecretChecked("p", "new"));
    EXPECT_FALSE(map.optSetSecretChecked("r", ""));
    EXPECT_EQ(TELO_ERR_KEY_MODE, TLIBCErrGet());
    EXPECT_EQ("2a2d", map.optString("p", ""));  // the old secret stays
    EXPECT_EQ("absent", map.optString("r", "absent"));
    EXPECT_EQ(2, log.err("TLIBCCryptSzEncrypt: [<any> fake_platform.cpp:<line>]"));

    // What the plain setter leaves after a failure, garbage and a non-text value all fail.
    map.optSet("empty", "x", true);
    map.optSet("obj", Json::Value(Json::objectValue));
    for (const char *key : {"empty", "bad"}) {
        errno = 0;
        EXPECT_FALSE(map.optGetSecretChecked(key, out)) << key;
        EXPECT_EQ(TELO_ERR_CRYPTO, TLIBCErrGet()) << key;
    }
    EXPECT_EQ(2, log.err("TLIBCCryptSzDecrypt: [0x0008 fake_platform.cpp:<line>]"));
    EXPECT_FALSE(map.optGetSecretChecked("obj", out) || errno != ENOENT);
    EXPECT_FALSE(map.optGetSecretChecked("missing", out) || errno != ENOENT);
    EXPECT_EQ("pw", out);
    EXPECT_EQ(3, log.err("TLIBCCryptSzEncrypt: [<any> fake_platform.cpp:<line>]"));
    EXPECT_EQ(5u, log.size()) << log.dump();
}

TEST_F(OptionMapTest, LoadSaveRemoveAndBinding) {
    writeFile(file, "[job3]\nname=\"n\"\n[other]\nk=1\n");
    OptionMap map;
    ASSERT_TRUE(map.optSectionLoad(file, "job", 3));
    EXPECT_EQ("n", map.optString("name", ""));
    EXPECT_EQ(3, map.optSectionGetId());
    EXPECT_EQ("job3", map.optSectionGetName());
    EXPECT_TRUE(map.optIsLoaded());
    map.optSet("x", true);
    EXPECT_TRUE(map.optSectionSave());
    EXPECT_EQ("[job3]\nname=\"n\"\nx=true\n[other]\nk=1\n", readFile(file));
    EXPECT_TRUE(map.optSectionRemove());
    EXPECT_FALSE(map.optSectionRemove() || errno != ENOENT);
    EXPECT_EQ(1, log.err("remove sec failed, No such file or directory"));
    EXPECT_EQ("[other]\nk=1\n", readFile(file));

    // An absent section binds all the same; saving does not create it.
    EXPECT_FALSE(map.optSectionLoad(file, "absent", -1) || errno != ENOENT);
    EXPECT_EQ("absent", map.optSectionGetName());
    EXPECT_FALSE(map.optIsLoaded());
    EXPECT_FALSE(map.optSectionSave());
    EXPECT_EQ(1, log.err("update section failed, No such file or directory"));

    EXPECT_FALSE(map.optSectionLoad("", "x", -1));
    EXPECT_EQ(1, log.err("invalid sec [][x]"));
    EXPECT_TRUE(map.optSectionGetName().empty());
    EXPECT_EQ(-1, map.optSectionGetId());
    EXPECT_FALSE(map.optSectionSave() || map.optSectionRemove());
    EXPECT_EQ(1, log.err("not bind before save"));
    EXPECT_EQ(1, log.err("not bind before remove"));

    std::list<std::string> names{"stale"};
    EXPECT_TRUE(OptionMap::optSectionListName(dir.file("none"), names));
    EXPECT_TRUE(names.empty());
}

// Exit 0 when the lock file of args[0] is free, 42 when another holder has it.
TELO_TEST_HELPER(trylock) {
    int fd = Path::createIpcLockFile(args[0]);
    if (fd < 0) return 1;
    return flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 42;
}

TEST_F(OptionMapTest, LockAndUnlock) {
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        SyslogCapture childLog{"option_map"};
        OptionMap map;
        CHILD_CHECK(map.lock() && map.lock() && map.unlock() && map.unlock());
        CHILD_CHECK(!map.setLockToken(""));
        CHILD_CHECK(map.setLockToken("tok"));
        CHILD_CHECK(map.lock());
        CHILD_CHECK_EQ(42, runCommand(helperCommand("trylock", {"tok"})).exitCode);
        CHILD_CHECK(!map.lock() && !map.setLockToken("other"));
        OptionMap copy = map;  // shares the descriptor number
        CHILD_CHECK(!copy.setLockToken("other") && copy.unlock());
        CHILD_CHECK_EQ(0, runCommand(helperCommand("trylock", {"tok"})).exitCode);
        CHILD_CHECK(!copy.unlock());
        CHILD_CHECK(!map.unlock());  // its descriptor was closed through the copy
        CHILD_CHECK_EQ(1, childLog.err("lock: file locked already. fd: [<any>]."));
        CHILD_CHECK_EQ(1, childLog.err("lock: file released already. fd: [-1]."));
    });
}

// The guard releases on every way out of its scope, moves its hold, and never unlocks twice.
TEST_F(OptionMapTest, ScopedLockReleasesItsHold) {
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        SyslogCapture childLog{"option_map"};
        auto holderOf = [] { return runCommand(helperCommand("trylock", {"tok"})).exitCode; };
        OptionMap map, other;
        CHILD_CHECK(map.setLockToken("tok") && other.setLockToken("tok2"));
        {
            OptionMap::ScopedLock guard(map);
            CHILD_CHECK(guard.owns() && static_cast<bool>(guard));
            CHILD_CHECK_EQ(42, holderOf());
            // A second guard on the same map fails as a second lock() does, and leaves the
            // first hold alone when it goes.
            {
                OptionMap::ScopedLock twice(map);
                CHILD_CHECK(!twice);
            }
            CHILD_CHECK_EQ(42, holderOf());
            OptionMap::ScopedLock moved(std::move(guard));
            CHILD_CHECK(!guard.owns() && moved.owns());
            OptionMap::ScopedLock assigned(other);
            errno = EIO;
            assigned = std::move(moved);  // releases tok2's hold, takes over tok's
            CHILD_CHECK(assigned.owns() && !moved.owns());
            CHILD_CHECK_EQ(42, holderOf());
            CHILD_CHECK(other.lock() && other.unlock());  // tok2 was released
        }
        CHILD_CHECK_EQ(0, holderOf());
        CHILD_CHECK(map.lock() && map.unlock());

        // Released early, then not again; errno set before the scope ends survives it.
        {
            OptionMap::ScopedLock guard(map);
            CHILD_CHECK(guard.unlock() && !guard.owns() && guard.unlock());
            CHILD_CHECK_EQ(0, holderOf());
            CHILD_CHECK(map.lock());
            errno = ENOSPC;
        }
        CHILD_CHECK_EQ(ENOSPC, errno);
        CHILD_CHECK_EQ(42, holderOf());  // the guard let go of its own hold only
        CHILD_CHECK(map.unlock());
        CHILD_CHECK_EQ(1, childLog.err("lock: file locked already. fd: [<any>]."));
        CHILD_CHECK_EQ(0, childLog.err("lock: file released already. fd: [-1]."));

        // Without a token the guard succeeds and holds nothing; a lock that cannot be had
        // (a token that would leave the lock directory) makes the guard say so.
        OptionMap plain;
        CHILD_CHECK(OptionMap::ScopedLock(plain).owns());
        OptionMap blocked;
        CHILD_CHECK(blocked.setLockToken("../x"));
        CHILD_CHECK(!OptionMap::ScopedLock(blocked) && errno == EXDEV);
        CHILD_CHECK_EQ(1, childLog.err("lock: open lock token failed."));
    });
}

TEST_F(OptionMapTest, UniqueAndIncreasingIds) {
    EXPECT_EQ(1, OptionMap::optSectionGetUniqueId(file, "job"));
    EXPECT_EQ("[job1]\n", readFile(file));
    writeFile(file, "[job1]\n[job5]\n[jobx]\n[job]\n[other7]\n");
    std::list<int> ids;
    EXPECT_TRUE(OptionMap::optSectionListId(file, "job", ids));
    EXPECT_EQ((std::list<int>{1, 5, 0}), ids);
    EXPECT_EQ(6, OptionMap::optSectionGetUniqueId(file, "job"));
    EXPECT_TRUE(TELO::Backup::SectionConfig::removeSection(file, "job6"));
    EXPECT_EQ(6, OptionMap::optSectionGetUniqueId(file, "job"));
    EXPECT_EQ(7, OptionMap::optSectionGetIncreaseId(file, "job"));  // no counter yet
    EXPECT_EQ(8, OptionMap::optSectionGetIncreaseId(file, "job"));
    EXPECT_EQ(1, OptionMap::optSectionGetIncreaseId(file, "task"));
    OptionMap counters;
    ASSERT_TRUE(counters.optSectionLoad(file, OptionMap::SZK_SEC_GLOBAL, -1));
    EXPECT_EQ("{\"jobid_max\":8,\"taskid_max\":1}", counters.optToJsonString());

    writeFile(file, "[global]\njobid_max=9\n[job3]\n");
    EXPECT_EQ(10, OptionMap::optSectionGetIncreaseId(file, "job"));
    EXPECT_EQ("[global]\njobid_max=10\n[job3]\n[job10]\n", readFile(file));

    // A hand-written file whose last line lacks its "\n": the header must not join that line.
    writeFile(file, "[a]\nkeep=3");
    EXPECT_EQ(1, OptionMap::optSectionGetUniqueId(file, "job"));
    EXPECT_EQ("[a]\nkeep=3\n[job1]\n", readFile(file));
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(OptionMapTest, CreatingMembersBind) {
    writeFile(file, "[job3]\n[main]\n");
    OptionMap map;
    EXPECT_FALSE(map.optSectionCreate(file, "job", 3) || map.optSectionCreate(file, "job", 0) ||
                 map.optSectionCreate(file, "main", false) || map.optSectionCreate("", "x", false));
    map.optSet("k", 1);
    ASSERT_TRUE(map.optSectionCreate(file, "job", 4));
    EXPECT_EQ(4, map.optSectionGetId());
    EXPECT_TRUE(map.optSectionSave());
    ASSERT_TRUE(map.optSectionCreate(file, "side", false));
    EXPECT_EQ(-1, map.optSectionGetId());
    ASSERT_TRUE(map.optSectionCreate(file, "job", true));
    ASSERT_TRUE(map.optSectionCreateIncreaseId(file, "job"));
    EXPECT_EQ("job6", map.optSectionGetName());
    EXPECT_EQ("[job3]\n[main]\n[job4]\nk=1\n[side]\n[job5]\n[global]\njobid_max=6\n[job6]\n",
              readFile(file));

    ASSERT_TRUE(map.optSectionLoad(file, "main", -1));
    EXPECT_FALSE(map.optSectionCreate(file, "new", false) || map.optSectionCreate(file, "job", 9) ||
                 map.optSectionCreate(file, "job", true) ||
                 map.optSectionCreateIncreaseId(file, "job"));
}

TEST_F(OptionMapTest, ProcessesSharingALockGetDistinctIds) {
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        const std::string file = "/tmp/ids.conf";
        std::vector<pid_t> pids(8);
        for (pid_t &pid : pids) {
            if ((pid = fork()) != 0) continue;
            for (int i = 0; i < 250; ++i) {
                OptionMap map;
                if (!map.setLockToken("ids") || !map.optSectionCreateIncreaseId(file, "job")) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        for (pid_t pid : pids) CHILD_CHECK_EQ(0, waitExitCode(pid));
        // Every section once: 2000 distinct identifiers and the counter.
        std::list<std::string> names;
        CHILD_CHECK(OptionMap::optSectionListName(file, names) && names.size() == 2001u);
        CHILD_CHECK_EQ(2001u, std::set<std::string>(names.begin(), names.end()).size());
        OptionMap counters;
        CHILD_CHECK(counters.optSectionLoad(file, OptionMap::SZK_SEC_GLOBAL, -1));
        CHILD_CHECK_EQ(2000, counters.optInt("jobid_max", 0));
    });
}

// ---- Creation in one step ---------------------------------------------------------------------

namespace {

// Runs `body` in a child with a private /tmp, where the lock tokens it uses cannot meet another
// run's, or else in a plain child. It is given a directory to work in: `dir`, or one in the
// private /tmp, which hides `dir` when that lies in /tmp.
void inChildWithOwnLocks(const TempDir &dir, const std::function<void(const std::string &)> &body) {
    const std::string home = dir.path();
    std::function<void()> run = [&] {
        std::string work = home;
        if (!exists(work)) {
            work = "/tmp/work";
            makeDir(work, 0755);
        }
        body(work);
    };
    ChildResult result = runInChild(ChildOptions{.privateTmp = true}, run);
    if (result.skipped) result = runInChild(run);
    EXPECT_TRUE(result.ok()) << result.message << " (status " << result.status << ")";
}

}  // namespace

// The section, its values and the raised counter come in one rewrite; other sections, the
// counter section's other keys and comments stay. A failure changes nothing and binds nothing.
TEST_F(OptionMapTest, CreationInOneStep) {
    OptionMap map;
    map.optSet("k", 1);
    ASSERT_TRUE(map.optSectionCreateAndSave(file, "job", false));
    EXPECT_EQ("[job1]\nk=1\n", readFile(file));
    EXPECT_EQ(1, map.optSectionGetId());
    EXPECT_EQ("job1", map.optSectionGetName());
    EXPECT_FALSE(map.optIsLoaded());

    writeFile(file, "#top\n[global]\nother=\"x\"\njobid_max=\"abc\"\n[job4]\ny=2\n[side]\ns=1");
    OptionMap named;
    named.optSet("name", "n");
    ASSERT_TRUE(named.optSectionCreateAndSave(file, "job", true));
    EXPECT_EQ("job5", named.optSectionGetName());
    EXPECT_EQ(
        "#top\n[global]\njobid_max=5\nother=\"x\"\n[job4]\ny=2\n[side]\ns=1\n[job5]\n"
        "name=\"n\"\n",
        readFile(file));
    writeFile(file, "[global]\njobid_max=9\n[job3]\n");
    OptionMap empty;
    ASSERT_TRUE(empty.optSectionCreateAndSave(file, "job", true));
    EXPECT_EQ("[global]\njobid_max=10\n[job3]\n[job10]\n", readFile(file));
    const std::string fresh = dir.file("fresh.conf");
    OptionMap unbound;
    unbound.optSet("name", "n");
    ASSERT_TRUE(unbound.optSectionCreateAndSave(fresh, "task", true));
    EXPECT_EQ("[global]\ntaskid_max=1\n[task1]\nname=\"n\"\n", readFile(fresh));

    // Failures: a loaded map, an empty prefix, no number left.
    writeFile(file, "[job2147483647]\n");
    OptionMap loaded;
    ASSERT_TRUE(loaded.optSectionLoad(file, "job2147483647", -1));
    EXPECT_FALSE(loaded.optSectionCreateAndSave(file, "job", true) || errno != EINVAL);
    OptionMap other;
    EXPECT_FALSE(other.optSectionCreateAndSave(file, "", false) || errno != EINVAL);
    EXPECT_FALSE(other.optSectionCreateAndSave(file, "job", true) || errno != EOVERFLOW);
    EXPECT_EQ(1, log.err("no id left for [job]"));
    EXPECT_TRUE(other.optSectionGetName().empty());
    EXPECT_EQ("[job2147483647]\n", readFile(file));
    EXPECT_EQ((std::vector<std::string>{"c.conf", "fresh.conf"}), listDir(dir.path()));
}

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

// Readers beside 4 processes that create 50 sections each never see a section without its
// values, nor the counter section without its counter.
TEST_F(OptionMapTest, ReadersNeverSeeAnEmptySection) {
    inChildWithOwnLocks(dir, [](const std::string &work) {
        const std::string path = work + "/c.conf";
        auto *stop = static_cast<std::atomic<int> *>(mmap(nullptr, sizeof(std::atomic<int>),
                                                          PROT_READ | PROT_WRITE,
                                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        CHILD_CHECK(stop != MAP_FAILED);
        new (stop) std::atomic<int>(0);
        std::vector<pid_t> readers(2), writers(4);
        for (pid_t &pid : readers) {
            if ((pid = fork()) != 0) continue;
            // Exit 0: never an empty section, and sections seen at least once.
            int seen = 0;
            while (stop->load() == 0 || seen == 0) {
                int sections = sectionsOrEmpty(path);
                if (sections < 0) _exit(1);
                seen += sections > 0;
            }
            _exit(0);
        }
        for (pid_t &pid : writers) {
            if ((pid = fork()) != 0) continue;
            for (int i = 0; i < 50; ++i) {
                OptionMap map;
                map.optSet("by", static_cast<int>(getpid()));
                map.optSet("n", i);
                if (!map.setLockToken("one-step") ||
                    !map.optSectionCreateAndSave(path, "job", i % 2 == 0)) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        int failedWriters = 0;
        for (pid_t pid : writers) failedWriters += waitExitCode(pid) != 0;
        stop->store(1);
        for (pid_t pid : readers) CHILD_CHECK_EQ(0, waitExitCode(pid));
        CHILD_CHECK_EQ(0, failedWriters);
        CHILD_CHECK_EQ(201, sectionsOrEmpty(path));
    });
}

// The header append reads the file's last byte to know whether the last line was ended; when
// that read fails, the append fails instead of guessing.
TEST_F(OptionMapTest, HeaderAppendFailsWhenTheLastByteCannotBeRead) {
    writeFile(file, "[a]\nk=1");
    const std::string path = file;
    EXPECT_CHILD_OK([&path] {
        SyslogCapture childLog{"option_map"};
        if (!failSystemCall(__NR_pread64, EIO)) return std::string();  // no seccomp: nothing
        CHILD_CHECK_EQ(-1, OptionMap::optSectionGetUniqueId(path, "job"));
        CHILD_CHECK_EQ(EIO, errno);
        CHILD_CHECK_EQ(1, childLog.err("read last byte failed, Input/output error"));
        return std::string();
    });
    EXPECT_EQ("[a]\nk=1", readFile(file));
}

// ---- Temporaries that killed writers left ----------------------------------------------------

namespace {

bool isTemporaryOf(const std::string &name, const std::string &base) {
    return name.size() == base.size() + 7 && name.compare(0, base.size() + 1, base + ".") == 0;
}

void setAge(const std::string &path, int seconds) {
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
    times[1] = times[0];
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace

// Writers killed while their temporary exists leave it behind; the next writer that holds the
// lock removes those of the caller older than 10 minutes, and nothing else: not a young one, a
// link, a directory, another user's file or a name of another shape. A writer without the
// lock removes nothing.
TEST_F(OptionMapTest, KilledWritersLeftoversGoAtTheNextLockedWrite) {
    inChildWithOwnLocks(dir, [](const std::string &home) {
        const std::string path = home + "/c.conf", base = "c.conf";
        writeFile(path, "[s]\npad=\"" + std::string(4 << 20, 'p') + "\"\n");
        std::vector<std::string> leftovers;
        auto newTemporaries = [&] {
            std::vector<std::string> found;
            for (const std::string &name : listDir(home)) {
                bool known = std::find(leftovers.begin(), leftovers.end(), name) != leftovers.end();
                if (isTemporaryOf(name, base) && !known) found.push_back(name);
            }
            return found;
        };
        for (int kill = 0; kill < 3; ++kill) {
            pid_t writer = fork();
            if (writer == 0) {
                OptionMap map;
                if (!map.setLockToken("stale-test") || !map.optSectionLoad(path, "s", -1)) _exit(1);
                for (int i = 0;; ++i) {
                    map.optSet("n", i);
                    if (!map.optSectionSave()) _exit(1);
                }
            }
            // Killed while a temporary of its rewrite exists.
            int status;
            while (newTemporaries().empty() && waitpid(writer, &status, WNOHANG) == 0) {
            }
            ::kill(writer, SIGKILL);
            CHILD_CHECK_EQ(128 + SIGKILL, waitExitCode(writer));
            for (const std::string &name : newTemporaries()) leftovers.push_back(name);
        }
        CHILD_CHECK(!leftovers.empty());
        for (const std::string &name : leftovers) setAge(home + "/" + name, 11 * 60);

        // What must stay: young, of other shapes, not a regular file, another user's.
        const std::vector<std::string> stay = {"c.conf.Young1",  "c.conf.ab-de9", "c.conf.abcde",
                                               "c.conf.abcdefg", "d.conf.abcdef", "c.conf.Link01",
                                               "c.conf.Dir001"};
        for (const std::string &name : stay) {
            if (name != "c.conf.Link01" && name != "c.conf.Dir001") {
                writeFile(home + "/" + name, "x", 0600);
            }
        }
        writeFile(home + "/outside", "target", 0600);
        CHILD_CHECK(symlink((home + "/outside").c_str(), (home + "/c.conf.Link01").c_str()) == 0);
        CHILD_CHECK(mkdir((home + "/c.conf.Dir001").c_str(), 0700) == 0);
        std::vector<std::string> expected = stay;
        expected.insert(expected.end(), {"c.conf", "outside"});
        if (canChangeOwner()) {
            writeFile(home + "/c.conf.Nobody", "x", 0600);
            CHILD_CHECK(chown((home + "/c.conf.Nobody").c_str(), 65534, 65534) == 0);
            expected.push_back("c.conf.Nobody");
        }
        for (const std::string &name : expected) {
            if (name != "c.conf.Young1") setAge(home + "/" + name, 11 * 60);
        }
        std::sort(expected.begin(), expected.end());

        OptionMap unlocked;
        CHILD_CHECK(unlocked.optSectionLoad(path, "s", -1));
        unlocked.optSet("n", -1);
        CHILD_CHECK(unlocked.optSectionSave());  // no token: nothing held, nothing removed
        for (const std::string &name : leftovers) CHILD_CHECK(exists(home + "/" + name));

        OptionMap locked = unlocked;
        CHILD_CHECK(locked.setLockToken("stale-test") && locked.optSectionSave());
        CHILD_CHECK(listDir(home) == expected);
        CHILD_CHECK_EQ(std::string("target"), readFile(home + "/outside"));
        printf("[ stale    ] %zu temporaries of killed writers removed by the next locked write\n",
               leftovers.size());
        fflush(stdout);
    });
}
