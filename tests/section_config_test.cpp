// The line scanner and the four file operations on real files, including failed rewrites, bad
// input and a writer killed at random moments.
#include "telobackup/section_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <random>

#include "internal/test_hook.h"
#include "support/attacker.h"
#include "support/child.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telobackup/json_text.h"
#include "telobackup/option_map.h"

using TELO::Backup::jsonFromString;
using TELO::Backup::SectionConfig;
using namespace testsupport;
using TELO::Backup::internal::HookPoint;
using TELO::Backup::internal::testHook;

namespace {

using Lines = std::vector<std::string>;

// Every callback record as "type|line|section|key|value", "~" for a null pointer; the callback
// answers `answer`, and the scan's result must be the same.
Lines scan(const std::string &content, bool answer) {
    Lines lines;
    auto record = [](bool &, const SectionConfig::LineInfo &info, void *arg) {
        auto text = [](const char *p) { return p != nullptr ? std::string(p) : std::string("~"); };
        auto *out = static_cast<Lines *>(arg);
        out->push_back(std::to_string(info.type) + "|" + text(info.line) + "|" +
                       text(info.section) + "|" + text(info.key) + "|" + text(info.value));
        return out->front() == "true";
    };
    lines.push_back(answer ? "true" : "false");
    FILE *stream = fmemopen(const_cast<char *>(content.data()), content.size(), "r");
    EXPECT_EQ(answer, SectionConfig::parseFile(stream, record, &lines));
    fclose(stream);
    lines.erase(lines.begin());
    return lines;
}

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

// A callback's false makes the result false, but the scan goes on to the end.
TEST(SectionConfigScanner, ClassifiesEveryLine) {
    std::string content =
        "  #top  \n\nkey0 = 1\n[a]b]\r\n\t x \t=\t \"y z\" \t\na = b=c\n=v\n[]\n"
        "[open\nno equals\n;semi=1\n\vvt=1\n[ s ]\n";
    content += std::string("x\0[junk]=1\n", 11) + "last";
    EXPECT_EQ(
        (Lines{"2|#top|~|~|~", "0||~|~|~", "4|~|~|key0|1", "3|[a]b]|a]b|~|~", "4|~|a]b|x|\"y z\"",
               "4|~|a]b|a|b=c", "4|~|a]b||v", "3|[]||~|~", "1|[open||~|~", "1|no equals||~|~",
               "4|~||;semi|1", "4|~||\vvt|1", "3|[ s ]| s |~|~", "1|x| s |~|~", "1|last| s |~|~"}),
        scan(content, true));
    EXPECT_EQ(15u, scan(content, false).size());
}

TEST_F(SectionConfigFile, LoadAndList) {
    writeFile(file, "k0=0\n[a]\n k = \"v\" \nbare = v\nn=1\nn=2\n[b]\n[a]\nx=9\n");
    Json::Value values(7);  // replaced, whatever it held
    EXPECT_TRUE(SectionConfig::loadSection(file, "a", values));
    EXPECT_EQ(json("{\"k\":\"v\",\"n\":2}"), values);
    EXPECT_TRUE(SectionConfig::loadSection(file, "b", values));
    EXPECT_TRUE(values.empty());
    EXPECT_FALSE(SectionConfig::loadSection(file, "A", values));
    EXPECT_EQ(ENOENT, errno);
    std::list<std::string> names{"stale"};
    EXPECT_TRUE(SectionConfig::listSection(file, names));
    EXPECT_EQ((std::list<std::string>{"a", "b", "a"}), names);
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// Values that do not parse are skipped, however they fail: a value nested past the reader's
// depth limit is one of them. A `values` of any kind ends as the section's object.
TEST_F(SectionConfigFile, HostileValuesAreSkipped) {
    std::string deep = std::string(1001, '[') + std::string(1001, ']');
    writeFile(file,
              "[a]\ne=" + std::string(1001, '[') + "\nf=" + deep + "\nok=1\n[b]\nd=" + deep + "\n");
    Json::Value array;  // becomes an array
    array.append(1);
    for (Json::Value values : {array, Json::Value("s"), Json::Value(3)}) {
        EXPECT_TRUE(SectionConfig::loadSection(file, "a", values));
        EXPECT_EQ(json("{\"ok\":1}"), values);
    }
    Json::Value values(Json::arrayValue);
    EXPECT_TRUE(SectionConfig::loadSection(file, "b", values));
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(0u, log.size()) << log.dump();
}

TEST_F(SectionConfigFile, RewritesNormaliseAndKeepTheRest) {
    writeFile(file, kSample, 0640);
    EXPECT_TRUE(SectionConfig::updateSection(file, "a", json("{\"z\":5,\"s\":\"t\"}"), false));
    EXPECT_EQ("#top\n[a]\ns=\"t\"\nz=5\n#c\n[b]\ny=2\n", readFile(file));
    EXPECT_EQ(0640, fileMode(file));
    expectAlone();

    writeFile(file, kSample);
    EXPECT_TRUE(SectionConfig::removeSection(file, "a"));
    EXPECT_EQ("#top\n[b]\ny=2\n", readFile(file));

    // Hand-written layout is normalised; every copy of the section is rewritten or removed.
    writeFile(file, "  k = 1 \r\n[a]\nx=1\n[a]\ny=2\n  [c] \n\tbad line\n[a]\n");
    EXPECT_TRUE(SectionConfig::updateSection(file, "a", json("{\"n\":[1,\"x\"]}"), false));
    EXPECT_EQ("k=1\n[a]\nn=[1,\"x\"]\n[a]\nn=[1,\"x\"]\n[c]\nbad line\n[a]\nn=[1,\"x\"]\n",
              readFile(file));
    EXPECT_TRUE(SectionConfig::removeSection(file, "a"));
    EXPECT_EQ("k=1\n[c]\nbad line\n", readFile(file));
    EXPECT_TRUE(SectionConfig::updateSection(file, "new", Json::Value(), true));
    EXPECT_EQ("k=1\n[c]\nbad line\n[new]\n", readFile(file));

    // An absent section (or file) without `create` leaves everything as it was.
    EXPECT_FALSE(SectionConfig::updateSection(file, "zz", json("{\"a\":1}"), false));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(SectionConfig::removeSection(file, "zz"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("k=1\n[c]\nbad line\n[new]\n", readFile(file));
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_TRUE(SectionConfig::updateSection(file, "s", json("{\"a\":1}"), true));
    EXPECT_EQ("[s]\na=1\n", readFile(file));
    expectAlone();
    EXPECT_EQ(0u, log.size()) << log.dump();
}

// Names that would not read back as written are refused before anything is touched; odd
// content elsewhere (a 10 MB line, invalid UTF-8, a NUL byte) survives rewrites of other
// sections.
TEST_F(SectionConfigFile, BadInputNeverCostsData) {
    std::string big = "big=\"" + std::string(10 << 20, 'x') + "\"\n";
    std::string content = "[keep]\n" + big + "\xff\xfe=1\n[a]\nv=1\n";
    writeFile(file, content);
    EXPECT_FALSE(SectionConfig::updateSection(file, "a\n[keep]", json("{}"), true));
    for (const char *key : {"x\n[keep]", "k=v", " k", "k\t", "#k", "[k"}) {
        Json::Value values;
        values[key] = "[1]";
        EXPECT_FALSE(SectionConfig::updateSection(file, "a", values, true) || errno != EINVAL);
    }
    EXPECT_EQ(1, log.err("invalid name [#k]"));
    EXPECT_EQ(content, readFile(file));
    expectAlone();

    EXPECT_TRUE(SectionConfig::updateSection(file, "a", json("{\"w\":\"l1\\nl2\"}"), false));
    EXPECT_EQ("[keep]\n" + big + "\xff\xfe=1\n[a]\nw=\"l1\\nl2\"\n", readFile(file));
    writeFile(file, std::string("[a]\nx=1\0[b]\n[b]\n", 16));
    EXPECT_TRUE(SectionConfig::removeSection(file, "b"));
    EXPECT_EQ("[a]\nx=1\n", readFile(file));
}

// A caller who may not write the directory or the file gets false, and nothing changes.
TEST_F(SectionConfigFile, FailedRewriteLeavesFileAlone) {
    writeFile(file, kSample, 0666);
    std::string readOnly = dir.file("ro.conf");
    writeFile(readOnly, kSample, 0644);
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    std::string path = file;
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [&] {
        SyslogCapture childLog{"section_config"};
        Json::Value values = json("{\"z\":1}");
        CHILD_CHECK(!SectionConfig::updateSection(path, "a", values, false));
        CHILD_CHECK_EQ(EACCES, errno);
        CHILD_CHECK(!SectionConfig::removeSection(path, "a"));
        CHILD_CHECK_EQ(2, childLog.err("create temp failed, Permission denied"));
        // A file the caller may not write fails at the open, silently.
        CHILD_CHECK(!SectionConfig::updateSection(readOnly, "a", values, false));
        CHILD_CHECK(!SectionConfig::removeSection(readOnly, "a") && errno == EACCES);
        CHILD_CHECK_EQ(2, childLog.count(LOG_ERR, "<any>"));
    });
    EXPECT_EQ(kSample, readFile(file));
    EXPECT_EQ(kSample, readFile(readOnly));
    EXPECT_EQ((Lines{"c.conf", "ro.conf"}), listDir(dir.path()));
}

// A FIFO, a device or a directory where the file should be is refused at once by every
// operation, with EINVAL (EISDIR for a directory): nothing waits for a writer that never comes
// or reads without end.
TEST_F(SectionConfigFile, OnlyRegularFilesAreRead) {
    const std::string fifo = dir.file("fifo.conf"), zero = dir.file("zero.conf"),
                      sub = dir.file("dir.conf");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    ASSERT_EQ(0, symlink("/dev/zero", zero.c_str()));
    ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
    const std::string before = describeTree(dir.path());
    Json::Value values = json("{\"k\":1}");
    EXPECT_CHILD_OK([&] {
        alarm(20);  // a hang ends the child, not the run
        SyslogCapture childLog{"section_config"};
        for (const std::string &path : {fifo, zero, sub}) {
            const int expected = path == sub ? EISDIR : EINVAL;
            Json::Value loaded;
            std::list<std::string> names;
            CHILD_CHECK(!SectionConfig::loadSection(path, "a", loaded) && errno == expected);
            CHILD_CHECK(!SectionConfig::listSection(path, names) && errno == expected);
            CHILD_CHECK(!SectionConfig::updateSection(path, "a", values, false) &&
                        errno == expected);
            CHILD_CHECK(!SectionConfig::updateSection(path, "a", values, true) &&
                        errno == expected);
            CHILD_CHECK(!SectionConfig::removeSection(path, "a") && errno == expected);
        }
        CHILD_CHECK_EQ(6, childLog.err("open failed, Invalid argument"));
        CHILD_CHECK_EQ(3, childLog.err("open failed, Is a directory"));
    });
    EXPECT_EQ(before, describeTree(dir.path()));
}

// A rewrite keeps the file's POSIX ACL and user attributes, so a reader granted access keeps
// it; a file without an ACL gets none from its directory's default ACL on the way.
TEST_F(SectionConfigFile, RewritesKeepAclAndUserAttributes) {
    const std::string acl = aclGrantingRead(34);
    writeFile(file, kSample, 0600);
    if (setxattr(file.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) != 0 ||
        setxattr(file.c_str(), "user.origin", "by hand", 7, 0) != 0) {
        GTEST_SKIP() << "no ACLs or user attributes on " << dir.path() << ": " << strerror(errno);
    }
    struct stat before, after;
    ASSERT_EQ(0, stat(file.c_str(), &before));
    EXPECT_TRUE(SectionConfig::updateSection(file, "b", json("{\"y\":3}"), false));
    ASSERT_EQ(0, stat(file.c_str(), &after));
    EXPECT_NE(before.st_ino, after.st_ino);  // replaced, not written in place
    EXPECT_TRUE(SectionConfig::removeSection(file, "a"));
    std::string value;
    EXPECT_TRUE(attributeOf(file, "system.posix_acl_access", value));
    EXPECT_EQ(acl, value);
    EXPECT_TRUE(attributeOf(file, "user.origin", value));
    EXPECT_EQ("by hand", value);
    EXPECT_EQ(0640, fileMode(file));
    expectAlone();

    const std::string sub = dir.file("inherits"), plain = sub + "/p.conf";
    makeDir(sub, 0755);
    ASSERT_EQ(0, setxattr(sub.c_str(), "system.posix_acl_default", acl.data(), acl.size(), 0));
    writeFile(plain, kSample, 0600);
    ASSERT_EQ(0, removexattr(plain.c_str(), "system.posix_acl_access"));
    ASSERT_EQ(0, chmod(plain.c_str(), 0600));
    EXPECT_TRUE(SectionConfig::removeSection(plain, "a"));
    EXPECT_FALSE(attributeOf(plain, "system.posix_acl_access", value));
    EXPECT_EQ(0600, fileMode(plain));
}

// ---- Links another user planted --------------------------------------------------------------

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
        SyslogCapture log{"section_config"};
        Json::Value values = json("{\"k\":2}"), loaded;
        std::list<std::string> names;
        for (const std::string &conf : {home + "/a.conf", home + "/new.conf", home + "/dir/file"}) {
            errno = 0;
            CHILD_CHECK(!SectionConfig::updateSection(conf, "s", values, true) && errno == EPERM);
            CHILD_CHECK(!SectionConfig::removeSection(conf, "s") && errno == EPERM);
            CHILD_CHECK(!SectionConfig::loadSection(conf, "s", loaded) && errno == EPERM);
            CHILD_CHECK(!SectionConfig::listSection(conf, names) && errno == EPERM);
            // Nor is a new section made there.
            TELO::Backup::OptionMap map;
            CHILD_CHECK(!map.optSectionCreate(conf, "n", false) && errno == EPERM);
        }
        CHILD_CHECK_EQ(6, log.err("open failed, Operation not permitted"));
        CHILD_CHECK_EQ(before, describeTree(rootOnly));

        CHILD_CHECK(SectionConfig::updateSection(home + "/mine.conf", "s", values, false));
        CHILD_CHECK_EQ(std::string("[s]\nk=2\n"), readFile(home + "/own"));
        struct stat st;
        CHILD_CHECK(lstat((home + "/own").c_str(), &st) == 0 && st.st_uid == 65534);
        CHILD_CHECK((st.st_mode & 07777) == 0640);
        CHILD_CHECK(lstat((home + "/mine.conf").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    });
}

// ---- Another user swapping the temporary --------------------------------------------------------

namespace {

Attacker *swapper = nullptr;
HookPoint swapAt;
bool swapDone = false;

void swapWhenDue(HookPoint point, const char *, int) {
    if (point == swapAt && !swapDone) swapDone = swapper->perform(0);
}

// Rewrites section "s" of `conf` while `attacker` performs its step 0 at `point`: true when the
// step was done and the rewrite failed with ESTALE.
bool rewriteFailsUnderAttack(Attacker &attacker, HookPoint point, const std::string &conf) {
    swapper = &attacker;
    swapAt = point;
    testHook = swapWhenDue;
    bool written = SectionConfig::updateSection(conf, "s", json("{\"k\":2}"), false);
    int writeErrno = errno;
    testHook = nullptr;
    return swapDone && !written && writeErrno == ESTALE;
}

}  // namespace

// The owner of a configuration's directory renames root's temporary away and plants a link to a
// root-only file under its name: once before root checks the name, once between the check and
// the rename. Root's rewrite fails and never changes the link's target; when the name was still
// the temporary at the check, the configuration is untouched as well.
TEST(SectionConfigAttack, SwappedTemporaryChangesNothingOutside) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to rewrite another user's file";
    for (HookPoint point : {HookPoint::kBeforeTempCheck, HookPoint::kBeforeTempRename}) {
        EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [point] {
            const std::string home = "/tmp/home", conf = "/tmp/home/a.conf";
            makeDir(home, 0755);
            writeFile(conf, "[s]\nk=1\n", 0644);
            CHILD_CHECK(chown(home.c_str(), 65534, 65534) == 0);
            CHILD_CHECK(chown(conf.c_str(), 65534, 65534) == 0);
            writeFile("/tmp/secret", "precious", 0600);
            const std::string victim = describeTree("/tmp/secret"), config = describeTree(conf);
            Attacker attacker({[home] {
                for (const std::string &name : listDir(home)) {
                    if (name.rfind("a.conf.", 0) != 0) continue;
                    std::string temp = home + "/" + name;
                    return rename(temp.c_str(), (home + "/stolen").c_str()) == 0 &&
                           symlink("/tmp/secret", temp.c_str()) == 0;
                }
                return false;
            }});
            SyslogCapture log{"path/path_util"};
            CHILD_CHECK(rewriteFailsUnderAttack(attacker, point, conf));
            CHILD_CHECK_EQ(victim, describeTree("/tmp/secret"));
            CHILD_CHECK(log.err("rename failed<any>Stale file handle<any>[" + conf + "]") == 1);
            if (point == HookPoint::kBeforeTempCheck) {
                CHILD_CHECK_EQ(config, describeTree(conf));
                // The planted link stays: the name is no longer root's to remove.
                CHILD_CHECK_EQ(size_t(3), listDir(home).size());
            }
        });
    }
}

// The owner of the directory above a configuration's swaps that directory for a link to a
// root-only directory holding a file of the same name, after root opened the configuration and
// before it makes the temporary. The temporary lands in the wrong directory, is found there and
// removed, and the rewrite fails: the root-only file is not replaced with the user's content.
TEST(SectionConfigAttack, SwappedDirectoryDoesNotRedirectTheRewrite) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to rewrite another user's file";
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [] {
        const std::string home = "/tmp/home", conf = "/tmp/home/app/a.conf";
        makeDir(home, 0755);
        makeDir(home + "/app", 0755);
        writeFile(conf, "[s]\nk=1\n", 0644);
        for (const std::string &path : {home, home + "/app", conf}) {
            CHILD_CHECK(chown(path.c_str(), 65534, 65534) == 0);
        }
        makeDir("/tmp/rootonly", 0700);
        writeFile("/tmp/rootonly/a.conf", "[s]\nsecret=1\n", 0600);
        const std::string before = describeTree("/tmp/rootonly");
        Attacker attacker({[home] {
            return rename((home + "/app").c_str(), (home + "/moved").c_str()) == 0 &&
                   symlink("/tmp/rootonly", (home + "/app").c_str()) == 0;
        }});
        CHILD_CHECK(rewriteFailsUnderAttack(attacker, HookPoint::kBeforeTempCreate, conf));
        CHILD_CHECK_EQ(before, describeTree("/tmp/rootonly"));
        CHILD_CHECK_EQ(std::string("[s]\nk=1\n"), readFile(home + "/moved/a.conf"));
    });
}

// ---- A writer killed at random moments --------------------------------------------------------

namespace {

std::string pad(long version) {
    return std::string(4000 + version % 1000, 'p');
}

// Rewrites section "data" of `file` with versions from `version` on, reporting each commit on
// `report`, until killed.
[[noreturn]] void rewrite(const std::string &file, long version, int report) {
    for (;; ++version) {
        Json::Value values;
        values["v"] = static_cast<Json::Int64>(version);
        values["pad"] = pad(version);
        std::string line = std::to_string(version) + "\n";
        if (!SectionConfig::updateSection(file, "data", values, false) ||
            write(report, line.data(), line.size()) < 0) {
            _exit(1);
        }
    }
}

}  // namespace

// After every kill the file holds the last reported version, or the next one when the kill
// came between its rename and its report.
TEST_F(SectionConfigFile, KilledWriterLeavesOldOrNewFile) {
    auto text = [](long v) {
        return "[keep]\nk=1\n[data]\npad=\"" + pad(v) + "\"\nv=" + std::to_string(v) + "\n";
    };
    writeFile(file, text(0));
    std::mt19937 rng(std::random_device{}());
    // 20 kills however busy the machine is, more while 3 s last.
    const int enoughKills = 20;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    long committed = 0;
    int kills = 0, leftovers = 0;
    while ((kills < enoughKills || std::chrono::steady_clock::now() < deadline) && kills < 200) {
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
        pid_t pid = fork();
        if (pid == 0) rewrite(file, committed + 1, fds[1]);
        close(fds[1]);
        std::string reported;
        char buffer[4096];
        auto readSome = [&] {
            ssize_t n = read(fds[0], buffer, sizeof(buffer));
            if (n > 0) reported.append(buffer, static_cast<size_t>(n));
            return n > 0;
        };
        // Let it commit at least once, then kill it somewhere in a later rewrite.
        while (reported.find('\n') == std::string::npos && readSome()) {
        }
        timespec pause{0, static_cast<long>(rng() % 3000000)};
        nanosleep(&pause, nullptr);
        kill(pid, SIGKILL);
        ASSERT_EQ(128 + SIGKILL, waitExitCode(pid));
        while (readSome()) {
        }
        close(fds[0]);
        ++kills;
        long last = std::stol(reported.substr(reported.rfind('\n', reported.size() - 2) + 1));
        Json::Value values;
        ASSERT_TRUE(SectionConfig::loadSection(file, "data", values));
        committed = values["v"].asInt64();
        ASSERT_TRUE(committed == last || committed == last + 1) << committed << " after " << last;
        ASSERT_EQ(text(committed), readFile(file));
        for (const std::string &name : listDir(dir.path())) {
            if (name != "c.conf") leftovers += unlink(dir.file(name).c_str()) == 0;
        }
    }
    std::cout << "[ crash    ] " << kills << " kills, " << committed << " versions, " << leftovers
              << " temporaries left beside the file" << std::endl;
}

// A stop ends the scan after the stopping line and leaves the stream just behind it, so a
// caller can go on reading from there.
TEST_F(SectionConfigFile, StopLeavesTheStreamAfterTheStoppingLine) {
    writeFile(file, "[a]\nx=1\n[b]\ny=2\n");
    auto stopAtB = [](bool &stop, const SectionConfig::LineInfo &info, void *arg) {
        static_cast<Lines *>(arg)->push_back(info.type == SectionConfig::LINE_SECTION
                                                 ? std::string(info.line)
                                                 : std::string(info.key));
        stop = info.type == SectionConfig::LINE_SECTION && std::string(info.section) == "b";
        return true;
    };
    Lines seen;
    FILE *stream = fopen(file.c_str(), "r");
    ASSERT_NE(nullptr, stream);
    EXPECT_TRUE(SectionConfig::parseFile(stream, stopAtB, &seen));
    EXPECT_EQ((Lines{"[a]", "x", "[b]"}), seen);
    char rest[32] = {};
    EXPECT_EQ(4u, fread(rest, 1, sizeof rest - 1, stream));
    EXPECT_STREQ("y=2\n", rest);
    fclose(stream);
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
