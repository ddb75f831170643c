// The file operations on real files, including failed rewrites, bad input, links and swaps
// another user plants, and a writer killed at random moments.
#include "telobackup/section_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>

#include "internal/test_hook.h"
#include "support/attacker.h"
#include "support/child.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/json_text.h"

using TELO::Backup::jsonFromString;
using TELO::Backup::SectionConfig;
using namespace testsupport;
using TELO::Backup::internal::HookPoint;
using TELO::Backup::internal::testHook;

namespace {

using Lines = std::vector<std::string>;

Json::Value json(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(jsonFromString(value, text)) << text;
    return value;
}

class SectionConfigFile : public ::testing::Test {
  protected:
    // The directory holds exactly the config file: no temporary was left beside it.
    void expectAlone() { EXPECT_EQ(Lines{"c.conf"}, listDir(dir.path())); }
    TempDir dir;
    std::string file = dir.file("c.conf");
    SyslogCapture log{"section_config"};
};

const char kSample[] = "#top\n[a]\n#c\nx=1\n[b]\ny=2\n";

}  // namespace

// A stop ends the scan after the stopping line and leaves the stream just behind it, so a
// caller can go on reading from there. A callback's false fails the scan but does not end it.
TEST_F(SectionConfigFile, StopLeavesTheStreamAfterTheStoppingLine) {
    writeFile(file, "[a]\nx=1\n[b]\ny=2\n");
    auto stopAtB = [](bool &stop, const SectionConfig::LineInfo &info, void *arg) {
        const bool section = info.type == SectionConfig::LINE_SECTION;
        static_cast<Lines *>(arg)->push_back(section ? info.line : info.key);
        stop = section && std::string(info.section) == "b";
        return section;
    };
    Lines seen;
    std::unique_ptr<FILE, int (*)(FILE *)> stream(fopen(file.c_str(), "r"), fclose);
    ASSERT_TRUE(stream);
    EXPECT_FALSE(SectionConfig::parseFile(stream.get(), stopAtB, &seen));
    EXPECT_EQ((Lines{"[a]", "x", "[b]"}), seen);
    char rest[32] = {};
    EXPECT_EQ(4u, fread(rest, 1, sizeof rest - 1, stream.get()));
    EXPECT_STREQ("y=2\n", rest);
}

// The three writers put exactly one line each, cut at a NUL; a stream that refuses the text
// makes them false with the failure logged once each.
TEST_F(SectionConfigFile, LineWritersAndTheirFailure) {
    char *text = nullptr;
    size_t size = 0;
    FILE *memory = open_memstream(&text, &size);
    ASSERT_NE(nullptr, memory);
    EXPECT_TRUE(SectionConfig::writeSectionName(memory, "s"));
    EXPECT_TRUE(SectionConfig::writeKeyValue(memory, "k", "\"v\""));
    EXPECT_TRUE(SectionConfig::writeLine(memory, std::string("#c\0hidden", 9)));
    fclose(memory);
    EXPECT_EQ("[s]\nk=\"v\"\n#c\n", std::string(text, size));
    free(text);

    FILE *full = fopen("/dev/full", "we");
    ASSERT_NE(nullptr, full);
    setvbuf(full, nullptr, _IONBF, 0);  // the refusal shows at the write, not at a later flush
    EXPECT_FALSE(SectionConfig::writeSectionName(full, "s"));
    EXPECT_FALSE(SectionConfig::writeKeyValue(full, "k", "1"));
    EXPECT_FALSE(SectionConfig::writeLine(full, "line"));
    fclose(full);
    EXPECT_EQ(3, log.err("fprintf failed, No space left on device")) << log.dump();
}

// The first copy of a section loads, its last value of a key wins, values that do not parse
// are skipped.
TEST_F(SectionConfigFile, LoadTakesTheFirstCopy) {
    writeFile(file, "k0=0\n[a]\n k = \"v\" \nbare = v\nn=1\nn=2\ne=[[\n[b]\n[a]\nx=9\n");
    Json::Value values;
    EXPECT_TRUE(SectionConfig::loadSection(file, "a", values));
    EXPECT_EQ(json("{\"k\":\"v\",\"n\":2}"), values);
}

TEST_F(SectionConfigFile, RewritesNormaliseAndKeepTheRest) {
    writeFile(file, kSample, 0640);
    EXPECT_TRUE(SectionConfig::updateSection(file, "a", json("{\"z\":5,\"s\":\"t\"}"), false));
    EXPECT_EQ("#top\n[a]\ns=\"t\"\nz=5\n#c\n[b]\ny=2\n", readFile(file));
    EXPECT_EQ(0640, fileMode(file));

    // Several sections in one rewrite: both copies of [a] get its keys, the missing one is
    // appended.
    writeFile(file, "# top\n[a]\nx=1\n# in a\n[b]\ny=1\n[a]\nx=9\n[keep]\nz=1\n");
    ASSERT_TRUE(SectionConfig::updateSections(
        file, json("{\"b\":{\"n\":null,\"y\":2},\"a\":{\"x\":2},\"new\":{\"w\":[1]}}"), true));
    EXPECT_EQ("# top\n[a]\nx=2\n# in a\n[b]\nn=null\ny=2\n[a]\nx=2\n[keep]\nz=1\n[new]\nw=[1]\n",
              readFile(file));
    expectAlone();
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// Names that would not read back as written and absent sections without `create` are refused
// before anything is touched; odd content elsewhere (a 10 MB line, invalid UTF-8) survives
// rewrites of other sections.
TEST_F(SectionConfigFile, BadInputNeverCostsData) {
    std::string big = "big=\"" + std::string(10 << 20, 'x') + "\"\n";
    std::string content = "[keep]\n" + big + "\xff\xfe=1\n[a]\nv=1\n";
    writeFile(file, content);
    EXPECT_FALSE(SectionConfig::updateSection(file, "a\n[keep]", json("{}"), true) ||
                 errno != EINVAL);
    // A bad key in any section refuses all of them; one missing section refuses all.
    EXPECT_FALSE(SectionConfig::updateSections(file, json("{\"a\":{},\"b\":{\"=k\":1}}"), true) ||
                 errno != EINVAL);
    EXPECT_FALSE(SectionConfig::updateSections(file, json("{\"a\":{},\"gone\":{}}"), false) ||
                 errno != ENOENT);
    EXPECT_EQ(content, readFile(file));
    expectAlone();

    EXPECT_TRUE(SectionConfig::updateSection(file, "a", json("{\"w\":\"l1\\nl2\"}"), false));
    EXPECT_EQ("[keep]\n" + big + "\xff\xfe=1\n[a]\nw=\"l1\\nl2\"\n", readFile(file));
}

// A caller who may write the file but not its directory gets false, and nothing changes.
TEST_F(SectionConfigFile, FailedRewriteLeavesFileAlone) {
    writeFile(file, kSample, 0666);
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    std::string path = file;
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        CHILD_CHECK(!SectionConfig::updateSection(path, "a", json("{\"z\":1}"), false) &&
                    errno == EACCES);
    });
    EXPECT_EQ(kSample, readFile(file));
    expectAlone();
}

// A FIFO where the file should be is refused at once by the open and the write paths: nothing
// waits for a writer that never comes. A regular file opens close-on-exec.
TEST_F(SectionConfigFile, OnlyRegularFilesAreRead) {
    writeFile(file, kSample);
    std::unique_ptr<FILE, int (*)(FILE *)> in(SectionConfig::openFile(file), fclose);
    ASSERT_TRUE(in);
    EXPECT_NE(0, fcntl(fileno(in.get()), F_GETFD) & FD_CLOEXEC);
    const std::string fifo = dir.file("fifo.conf");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    const std::string before = describeTree(dir.path());
    EXPECT_CHILD_OK([&] {
        alarm(20);  // a hang ends the child, not the run
        CHILD_CHECK(SectionConfig::openFile(fifo) == nullptr && errno == EINVAL);
        CHILD_CHECK(!SectionConfig::updateSection(fifo, "a", json("{}"), true) && errno == EINVAL);
    });
    EXPECT_EQ(before, describeTree(dir.path()));
}

// A file without an ACL gets none from its directory's default ACL when it is rewritten. (That
// the replacement takes over the old file's own ACL and attributes is the rename's, which the
// path tests check.)
TEST_F(SectionConfigFile, RewritesTakeNoAclFromTheDirectory) {
    const std::string acl = aclGrantingRead(34);
    if (setxattr(dir.path().c_str(), "system.posix_acl_default", acl.data(), acl.size(), 0) != 0) {
        GTEST_SKIP() << "no ACLs on " << dir.path() << ": " << strerror(errno);
    }
    writeFile(file, kSample, 0600);
    ASSERT_EQ(0, removexattr(file.c_str(), "system.posix_acl_access"));
    ASSERT_EQ(0, chmod(file.c_str(), 0600));
    EXPECT_TRUE(SectionConfig::removeSection(file, "a"));
    std::string value;
    EXPECT_FALSE(attributeOf(file, "system.posix_acl_access", value));
    EXPECT_EQ(0600, fileMode(file));
}

// The temporaries of killed writers, once 10 minutes old, go; nothing else does: not a young
// one, a link, a directory, another user's file or a longer name.
TEST_F(SectionConfigFile, StaleTemporariesGoNothingElse) {
    writeFile(file, kSample);
    Lines expected = {"c.conf", "c.conf.Young1", "c.conf.abcdefg"};
    for (const std::string &name : expected) writeFile(dir.file(name), "x", 0600);
    ASSERT_EQ(0, symlink(file.c_str(), dir.file("c.conf.Link01").c_str()));
    makeDir(dir.file("c.conf.Dir001"), 0700);
    expected.insert(expected.end(), {"c.conf.Dir001", "c.conf.Link01"});
    if (canChangeOwner()) {
        writeFile(dir.file("c.conf.Nobody"), "x", 0600);
        ASSERT_EQ(0, chown(dir.file("c.conf.Nobody").c_str(), 65534, 65534));
        expected.push_back("c.conf.Nobody");
    }
    std::sort(expected.begin(), expected.end());
    writeFile(dir.file("c.conf.Ab12Cd"), "stale");
    const timespec old[2] = {{time(nullptr) - 11 * 60, 0}, {time(nullptr) - 11 * 60, 0}};
    for (const std::string &name : listDir(dir.path())) {
        if (name != "c.conf.Young1") {
            ASSERT_EQ(0, utimensat(AT_FDCWD, dir.file(name).c_str(), old, AT_SYMLINK_NOFOLLOW));
        }
    }
    errno = EDOM;
    EXPECT_EQ(1, SectionConfig::removeStaleTemporaries(file));
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(expected, listDir(dir.path()));
}

// A user plants links in their own directory to a root-only file, to a name that does not exist
// yet in a root-only directory, and to that directory itself. Every read and write of root
// through them fails with EPERM before anything is opened, and the root-only directory stays as
// it was. A link the user made to their own file is followed, and the file stays theirs.
TEST(SectionConfigAttack, PlantedLinksAreFollowedOnlyWhenTrusted) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be lured";
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        const std::string home = "/tmp/home", rootOnly = "/tmp/rootonly";
        makeDir(home, 0755);
        CHILD_CHECK(chown(home.c_str(), 65534, 65534) == 0);
        makeDir(rootOnly, 0700);
        writeFile(rootOnly + "/file", "[s]\nsecret=1\n", 0600);
        const std::string before = describeTree(rootOnly);
        Attacker attacker({[&] {
            writeFile(home + "/own", "[s]\nk=1\n", 0640);
            return symlink("/tmp/rootonly/file", (home + "/a.conf").c_str()) == 0 &&
                   symlink("/tmp/rootonly/new", (home + "/new.conf").c_str()) == 0 &&
                   symlink("/tmp/rootonly", (home + "/dir").c_str()) == 0 &&
                   symlink("own", (home + "/mine.conf").c_str()) == 0;
        }});
        CHILD_CHECK(attacker.perform(0));
        Json::Value values = json("{\"k\":2}"), loaded;
        for (const std::string &conf : {home + "/a.conf", home + "/new.conf", home + "/dir/file"}) {
            CHILD_CHECK(!SectionConfig::updateSection(conf, "s", values, true) && errno == EPERM);
            CHILD_CHECK(!SectionConfig::removeSection(conf, "s") && errno == EPERM);
            CHILD_CHECK(!SectionConfig::loadSection(conf, "s", loaded) && errno == EPERM);
        }
        CHILD_CHECK_EQ(before, describeTree(rootOnly));

        CHILD_CHECK(SectionConfig::updateSection(home + "/mine.conf", "s", values, false));
        CHILD_CHECK_EQ(std::string("[s]\nk=2\n"), readFile(home + "/own"));
        struct stat st;
        CHILD_CHECK(lstat((home + "/own").c_str(), &st) == 0 && st.st_uid == 65534);
        CHILD_CHECK((st.st_mode & 07777) == 0640);
        CHILD_CHECK(lstat((home + "/mine.conf").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    });
}

namespace {

Attacker *swapper = nullptr;
HookPoint swapAt;
bool swapDone = false;

// Rewrites section "s" of `conf` while `attacker` performs its step 0 at `point`: true when the
// step was done and the rewrite failed with ESTALE.
bool rewriteFailsUnderAttack(Attacker &attacker, HookPoint point, const std::string &conf) {
    swapper = &attacker;
    swapAt = point;
    testHook = [](HookPoint at, const char *, int) {
        if (at == swapAt && !swapDone) swapDone = swapper->perform(0);
    };
    bool written = SectionConfig::updateSection(conf, "s", json("{\"k\":2}"), false);
    int writeErrno = errno;
    testHook = nullptr;
    return swapDone && !written && writeErrno == ESTALE;
}

}  // namespace

// The owner of a configuration's directory attacks root's rewrite of it. Renaming root's
// temporary away and planting a link to a root-only file under its name, before root checks the
// name or between the check and the rename; or swapping the directory for a link to a root-only
// one holding a file of the same name, before root makes the temporary, which then lands there
// and is found and removed. Root's rewrite fails and the root-only file stays; when the name
// was still the temporary at the check, the configuration is untouched as well.
TEST(SectionConfigAttack, SwapsChangeNothingOutside) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to rewrite another user's file";
    const std::string app = "/tmp/home/app", conf = app + "/a.conf";
    std::function<bool()> swapTemporary = [app] {
        for (const std::string &name : listDir(app)) {
            if (name.rfind("a.conf.", 0) != 0) continue;
            std::string temp = app + "/" + name;
            return rename(temp.c_str(), (app + "/stolen").c_str()) == 0 &&
                   symlink("/tmp/rootonly/a.conf", temp.c_str()) == 0;
        }
        return false;
    };
    std::function<bool()> swapDirectory = [app] {
        return rename(app.c_str(), "/tmp/home/moved") == 0 &&
               symlink("/tmp/rootonly", app.c_str()) == 0;
    };
    for (HookPoint point : {HookPoint::kBeforeTempCheck, HookPoint::kBeforeTempRename,
                            HookPoint::kBeforeTempCreate}) {
        EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [&] {
            makeDir("/tmp/home", 0755);
            makeDir(app, 0755);
            writeFile(conf, "[s]\nk=1\n", 0644);
            for (const std::string &path : {std::string("/tmp/home"), app, conf}) {
                CHILD_CHECK(chown(path.c_str(), 65534, 65534) == 0);
            }
            makeDir("/tmp/rootonly", 0700);
            writeFile("/tmp/rootonly/a.conf", "[s]\nsecret=1\n", 0600);
            const std::string victim = describeTree("/tmp/rootonly"), config = describeTree(conf);
            const bool directory = point == HookPoint::kBeforeTempCreate;
            Attacker attacker({directory ? swapDirectory : swapTemporary});
            SyslogCapture log{"path/path_util"};
            CHILD_CHECK(rewriteFailsUnderAttack(attacker, point, conf));
            CHILD_CHECK_EQ(victim, describeTree("/tmp/rootonly"));
            if (directory) {
                CHILD_CHECK_EQ(std::string("[s]\nk=1\n"), readFile("/tmp/home/moved/a.conf"));
                return;
            }
            CHILD_CHECK(log.err("rename failed<any>Stale file handle<any>[" + conf + "]") == 1);
            if (point == HookPoint::kBeforeTempCheck) {
                CHILD_CHECK_EQ(config, describeTree(conf));
                // The planted link stays: the name is no longer root's to remove.
                CHILD_CHECK_EQ(size_t(3), listDir(app).size());
            }
        });
    }
}

// After every kill the file holds the last reported version, or the next one when the kill
// came between its rename and its report.
TEST_F(SectionConfigFile, KilledWriterLeavesOldOrNewFile) {
    // The padding's size varies with the version, so that a torn write shows.
    auto values = [](long v) {
        Json::Value values;
        values["pad"] = std::string(4000 + v % 1000, 'p');
        values["v"] = static_cast<Json::Int64>(v);
        return values;
    };
    auto text = [&](long v) {
        return "[keep]\nk=1\n[data]\npad=\"" + values(v)["pad"].asString() +
               "\"\nv=" + std::to_string(v) + "\n";
    };
    writeFile(file, text(0));
    std::mt19937 rng(std::random_device{}());
    // 20 kills however busy the machine is, more while 3 s last.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    long committed = 0;
    for (int kills = 0; kills < 200; ++kills) {
        if (kills >= 20 && std::chrono::steady_clock::now() >= deadline) break;
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
        const pid_t pid = fork();
        ASSERT_LE(0, pid);
        // The writer reports each commit with one byte.
        for (long v = committed + 1; pid == 0; ++v) {
            if (!SectionConfig::updateSection(file, "data", values(v), false) ||
                write(fds[1], "+", 1) != 1) {
                _exit(1);
            }
        }
        close(fds[1]);
        // Let it commit at least once, then kill it somewhere in a later rewrite.
        char buffer[4096];
        ssize_t n = read(fds[0], buffer, sizeof buffer);
        long reported = n;
        timespec pause{0, static_cast<long>(rng() % 3000000)};
        nanosleep(&pause, nullptr);
        kill(pid, SIGKILL);
        ASSERT_EQ(128 + SIGKILL, waitExitCode(pid));
        while ((n = read(fds[0], buffer, sizeof buffer)) > 0) reported += n;
        close(fds[0]);
        ASSERT_GT(reported, 0);
        const long last = committed + reported;
        Json::Value loaded;
        ASSERT_TRUE(SectionConfig::loadSection(file, "data", loaded));
        committed = loaded["v"].asInt64();
        ASSERT_TRUE(committed == last || committed == last + 1) << committed << " after " << last;
        ASSERT_EQ(text(committed), readFile(file));
    }
}
