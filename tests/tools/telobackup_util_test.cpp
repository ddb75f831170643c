// End-to-end tests of the installed telobackup-util, run as a user would run it. Everything the
// tool touches lives in the test's own directory (configuration files, the secret key, a mount
// table whose one volume is a directory of the test), except the IPC tree, which a child with a
// private /tmp keeps away from the machine's real one where that is allowed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "telobackup/path/path_util.h"
#include "tools/tool_fixture.h"

TEST_F(Tool, StoresATaskWithASecretAndReadsItBack) {
    IN_PRIVATE_TMP([this] {
        const std::string key = dir.file("secret.key");
        CommandResult r = run({"config", "new", conf, "task", "--increasing", "name=\"nightly\"",
                               "--string", "source=/srv/photos", "--secret", "password"},
                              "s3cret-value\n");
        CHILD_CHECK_EQ(std::string("task1\n"), r.out);
        CHILD_CHECK_EQ("telobackup-util: created a new secret key " + key +
                           " (keep a copy: secrets cannot be read without it)\n",
                       r.err);
        // The secret is neither in the file nor printed without --secret.
        CHILD_CHECK(readFile(conf).find("s3cret-value") == std::string::npos);
        r = run({"--json", "config", "get", conf, "task1"});
        Json::Value task = parse(r.out);
        CHILD_CHECK(r.out.find("s3cret-value") == std::string::npos);
        CHILD_CHECK_EQ(std::string("s3cret-value\n"),
                       out({"config", "get", conf, "task1", "password", "--secret"}));
        // Every writing command says what it did as JSON, so a script never parses text.
        const std::string changed = "{\"changed\":true}\n";
        CHILD_CHECK_EQ(changed, out({"--json", "config", "set", conf, "task1", "retries=5",
                                     "--string", "note=two words"}));
        CHILD_CHECK_EQ(changed, out({"--json", "config", "unset", conf, "task1", "name"}));
        CHILD_CHECK_EQ(
            std::string("{\"global\":{\"taskid_max\":1},\"task1\":{\"note\":\"two words\","
                        "\"password\":") +
                TELO::Backup::jsonToString(task["password"]) +
                ",\"retries\":5,\"source\":\"/srv/photos\"}}\n",
            out({"config", "dump", conf}));
        // A key that went missing is not silently replaced by a read.
        CHILD_CHECK(rename(key.c_str(), dir.file("moved.key").c_str()) == 0);
        CHILD_CHECK_NONE(failsWith({"config", "get", conf, "task1", "password", "--secret"}, 7,
                                   "telobackup-util: cannot decrypt 'password': there is no "
                                   "secret key " +
                                       key + " (was it moved?)\n"));
        CHILD_CHECK(!exists(key));
    });
}

// Every kind of failure from a real condition: its exit status, nothing on standard output, the
// reason on standard error, and every file left as it was.
TEST_F(Tool, FailuresSayWhyAndChangeNothing) {
    IN_PRIVATE_TMP([this] {
        // From the test's directory, so that nothing may be made in the current one either.
        CHILD_CHECK(chdir(dir.path().c_str()) == 0);
        writeFile(conf, "#top\n[a]\nx=1\n[b]\ny=\"z\"\n[c]\nbad-key=1\n", 0640);
        writeFile("secret.key", std::string(32, 'k'), 0644);  // others may read it
        writeFile("s.conf", "[a]\npassword=\"\"\n");
        writeFile("t", "{{n}}{{b}}");
        CHILD_CHECK(mkfifo("fifo", 0644) == 0);
        // Held, so that a command that took the lock before it looked at the file would fail
        // with 5.
        int held = TELO::Backup::Path::createIpcLockFile("h");
        CHILD_CHECK(held >= 0);
        CHILD_CHECK(flock(held, LOCK_EX) == 0);
        const std::string tree = describeTree(dir.path());
        struct Case {
            int code;
            Args args;
            std::string says;
            std::string input = "";
            std::map<std::string, std::string> env = {};
        };
        const Case cases[] = {
            {1, {"config", "get", "missing", "a"}, "missing: no such file"},
            {1, {"config", "get", conf, "nosuch"}, conf + ": no section [nosuch]"},
            {1, {"config", "get", conf, "a", "nokey"}, "no key 'nokey' in [a]"},
            // A dry run names the file, not the copy it rewrites.
            {1, {"config", "unset", conf, "nosuch", "x", "--dry-run"}, conf + ": no section"},
            {1, {"config", "import", conf, "@-"}, "(add --create", "{\"nosuch\":{}}"},
            {1, {"template", "t", "--vars", "{}", "--strict"}, "t: the tag {{n}} has no value"},
            {1, {"share", "/elsewhere/x"}, "/elsewhere/x: in no share"},
            {1, {"session", "path", "sess.absent"}, "no session 'sess.absent'"},
            {1, {"mktemp", "--volume", "same:/none"}, "cannot create a temporary on volume"},
            {2, {"config", "set", conf, "a", "k=1x"}, "'k': not JSON: 1x (use --string"},
            {2, {"config", "set", conf, "a", "novalue"}, "'novalue': expected KEY=JSON"},
            {2, {"config", "import", conf, "@-"}, "bad key '=bad'", "{\"a\":{\"=bad\":1}}"},
            {2, {"config", "set", conf, "a", "--from-json", "@-"}, "expected one JSON ob", "[1]"},
            {2, {"config", "get", conf}, "SECTION is required\nRun with --help for usage.\n"},
            {2, {"config", "get", conf, ""}, "bad section '': a section name cannot be empty"},
            {2, {"config", "nosuch"}, "unknown config command 'nosuch' (expected sections, "},
            {2, {"filter", "--rule", "up", "/x"}, "--rule: up not in {include-wins,exclude-"},
            {3, {"config", "get", conf, "a", "x", "--secret"}, "is not a secret (not a string)"},
            {3, {"config", "get", conf, "c", "--format", "sh"}, "is no shell variable name"},
            {3, {"config", "get", dir.path(), "a"}, dir.path() + ": not a regular file"},
            // Refused before the held lock is waited for.
            {3, {"config", "set", "fifo", "s", "k=1", "--lock", "h", "--wait", "0"}, "fifo: not a"},
            {3, {"filter", "--from-file", conf, "/x"}, conf + ":2: expected KIND<TAB>PATTERN"},
            {3, {"share", "/x"}, "shares file fifo: not a", "", {{"TELO_SHARES_CONF", "fifo"}}},
            {4, {"log", "x"}, "log /dev/full: No space", "", {{"TELO_LOGFILE", "/dev/full"}}},
            {5, {"config", "set", conf, "a", "k=1", "--lock", "a/b"}, "lock/a does not exist"},
            {6, {"probe", "127.0.0.1", "1", "--timeout", "1"}, "127.0.0.1:1: connection refused"},
            {7, {"config", "set", "s.conf", "a", "--secret", "p"}, "by others: refused", "\n"},
        };
        for (const Case &c : cases) {
            CHILD_CHECK_NONE(failsWith(c.args, c.code, c.says, c.input, c.env));
            if (describeTree(dir.path()) != tree) CHILD_FAIL(c.says + ": changed a file");
        }
        close(held);
    });
}

// A writer stopped by SIGTERM, SIGINT or SIGHUP while its temporary exists finishes the rewrite
// and removes the temporary before the signal ends it; the temporaries of writers killed
// outright go with the next write, once they are 10 minutes old.
TEST_F(Tool, SignalledWritersLeaveNoTemporary) {
    IN_PRIVATE_TMP([this] {
        const std::string pad = std::string(2 << 20, 'p');
        // The temporaries of the file: its name, a dot and six characters.
        auto temporaries = [&] {
            std::set<std::string> names;
            for (const std::string &name : listDir(dir.path())) {
                if (name.size() == 17 && name.rfind("tasks.conf.", 0) == 0) names.insert(name);
            }
            return names;
        };
        writeFile(conf, "[s]\nk=0\npad=\"" + pad + "\"\n", 0640);
        // Starts a writer of k=`value` and signals it as soon as a temporary of its own exists;
        // how the writer ended.
        auto interrupt = [&](int value, int signal) {
            const size_t before = temporaries().size();
            pid_t pid = fork();
            if (pid == 0) {
                int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
                if (null < 0 || dup2(null, 1) != 1 || dup2(null, 2) != 2) _exit(126);
                execTool({"config", "set", conf, "s", "k=" + std::to_string(value)});
            }
            // Watched without reaping it, so that the signal cannot reach another process.
            siginfo_t info = {};
            while (temporaries().size() == before &&
                   waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid == 0) {
            }
            kill(pid, signal);
            return waitExitCode(pid);
        };
        int value = 0;
        for (int signal : {SIGINT, SIGHUP, SIGTERM, SIGINT, SIGHUP, SIGTERM}) {
            const int exitCode = interrupt(++value, signal);
            CHILD_CHECK(exitCode == 128 + signal || exitCode == 0);
            CHILD_CHECK(temporaries().empty());
            // The rewrite under way was finished before the signal took effect.
            CHILD_CHECK_EQ("[s]\nk=" + std::to_string(value) + "\npad=\"" + pad + "\"\n",
                           readFile(conf));
            CHILD_CHECK_EQ(0640, fileMode(conf));
        }
        for (int killed : {100, 101, 102}) interrupt(killed, SIGKILL);
        const std::set<std::string> leftovers = temporaries();
        CHILD_CHECK(!leftovers.empty());
        for (const std::string &name : leftovers) {
            struct timespec old[2] = {{time(nullptr) - 11 * 60, 0}, {time(nullptr) - 11 * 60, 0}};
            CHILD_CHECK(utimensat(AT_FDCWD, dir.file(name).c_str(), old, 0) == 0);
        }
        CHILD_CHECK_EQ(0, run({"config", "set", conf, "s", "k=7"}).exitCode);
        CHILD_CHECK(temporaries().empty());
    });
}

// Writes that cannot be made: an unprivileged user in a directory it may not write.
TEST_F(Tool, CannotWriteIsExitCodeFour) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to run the tool as another user";
    writeFile(conf, "[a]\nx=1\n", 0666);
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true, .privateTmp = true}, [this] {
        CHILD_CHECK_NONE(
            failsWith({"config", "set", conf, "a", "x=2", "--lock", "w"}, 4,
                      "telobackup-util: cannot write " + conf + ": Permission denied"));
        CHILD_CHECK_EQ(std::string("[a]\nx=1\n"), readFile(conf));
    });
}

// Whoever made the IPC tree first decides who may lock: each way it shuts a writer out is named
// on standard error with what to do, and so is a lock token that would leave the tree.
TEST_F(Tool, LockOutsAreExplained) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to make the tree as another user";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    EXPECT_CHILD_OK(ChildOptions{.privateTmp = true}, [this] {
        const Args set = {"config", "set", conf, "a", "k=1", "--create", "--wait", "0"};
        makeDir("/tmp/telobackup", 0755);
        CHILD_CHECK(chown("/tmp/telobackup", 65534, 65534) == 0);
        CHILD_CHECK_NONE(failsWith(set, 5,
                                   "cannot take the configuration lock: /tmp/telobackup is owned "
                                   "by uid 65534 (expected root or you): remove it\n"));
        CHILD_CHECK(rmdir("/tmp/telobackup") == 0);
        Args escape = set;
        escape.insert(escape.end(), {"--lock", "../../victim"});
        CHILD_CHECK_NONE(
            failsWith(escape, 5, "lock token '../../victim' leads out of /tmp/telobackup/lock\n"));
        CHILD_CHECK(!exists("/tmp/victim"));
        // A root-made tree shuts other users out of the lock directory and the session area.
        CHILD_CHECK(!TELO::Backup::Path::createIpcTempPath("session", 0700).empty());
        ChildResult user = runInChild(ChildOptions{.dropPrivileges = true}, [&] {
            CHILD_CHECK_NONE(failsWith(set, 5,
                                       "/tmp/telobackup/lock is mode 0770 root:root: run as root "
                                       "or as a member of its group\n"));
            CHILD_CHECK_NONE(failsWith({"session", "create"}, 7,
                                       "session create failed: /tmp/telobackup/session is mode "
                                       "0700 root:root: run as root\n"));
        });
        if (!user.message.empty()) CHILD_FAIL(user.message);
        CHILD_CHECK(!exists(conf));
    });
}

// A writer waits for a held lock, names its holder after 2 s and goes on when it is released;
// --wait bounds the wait with exit status 5.
TEST_F(Tool, WaitingForTheLock) {
    IN_PRIVATE_TMP([this] {
        int held = TELO::Backup::Path::createIpcLockFile("shared");
        CHILD_CHECK(held >= 0);
        CHILD_CHECK(flock(held, LOCK_EX) == 0);
        const std::string self = "process " + std::to_string(getpid());
        const Args set = {"config",   "set",    conf,     "a",      "k=1",
                          "--create", "--lock", "shared", "--wait", "0.3"};
        CHILD_CHECK_NONE(failsWith(set, 5, "lock shared is still held by " + self));
        CHILD_CHECK(!exists(conf));
        int err[2];
        CHILD_CHECK(pipe2(err, O_CLOEXEC) == 0);
        pid_t pid = fork();
        if (pid == 0) {
            if (dup2(err[1], 2) != 2) _exit(126);
            execTool({"config", "set", conf, "a", "k=1", "--create", "--lock", "shared"});
        }
        close(err[1]);
        std::string said;
        char buffer[512];
        for (ssize_t n; said.find('\n') == std::string::npos &&
                        (n = read(err[0], buffer, sizeof(buffer))) > 0;) {
            said.append(buffer, static_cast<size_t>(n));
        }
        CHILD_CHECK_EQ(
            "telobackup-util: waiting for the configuration lock shared, held by " + self + " (" +
                TELO::Backup::Path::basename(TELO::Backup::Path::getBinPath()).substr(0, 15) +
                ")\n",
            said);
        close(held);
        CHILD_CHECK_EQ(0, waitExitCode(pid));
        close(err[0]);
        CHILD_CHECK_EQ(std::string("[a]\nk=1\n"), readFile(conf));
    });
}

// Writers at once, under the default lock: the line of every one is kept.
TEST_F(Tool, ConcurrentWritersKeepEveryLine) {
    IN_PRIVATE_TMP([this] {
        std::vector<pid_t> writers;
        for (int i = 0; i < 40; ++i) {
            pid_t pid = fork();
            if (pid == 0)
                execTool({"config", "set", conf, "s", "k" + std::to_string(i) + "=1", "--create"});
            writers.push_back(pid);
        }
        for (pid_t pid : writers) CHILD_CHECK_EQ(0, waitExitCode(pid));
        Json::Value section = parse(out({"config", "get", conf, "s"}));
        CHILD_CHECK_EQ(40u, section.size());
        for (int i = 0; i < 40; ++i) CHILD_CHECK(section.isMember("k" + std::to_string(i)));
    });
}

// A link another user planted to a root-only file is not followed, and says so.
TEST_F(Tool, PlantedLinksAreNotFollowed) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to be lured by another user's link";
    IN_PRIVATE_TMP([this] {
        const std::string link = dir.file("a.conf"), target = dir.file("root-only");
        writeFile(target, "[s]\nsecret=1\n", 0600);
        const std::string before = describeTree(target);
        CHILD_CHECK(symlink(target.c_str(), link.c_str()) == 0);
        CHILD_CHECK(lchown(link.c_str(), 65534, 65534) == 0);
        const std::string says = link +
                                 " is a symbolic link of uid 65534; only links of root, of "
                                 "you or of their target's owner are followed\n";
        CHILD_CHECK_NONE(failsWith({"config", "set", link, "s", "k=1", "--create"}, 3, says));
        CHILD_CHECK_NONE(failsWith({"config", "dump", link}, 3, says));
        CHILD_CHECK_EQ(before, describeTree(target));
    });
}

// The dump reads the file once, yet a section comes out as `get` prints it, with its values
// that do not parse and its duplicate keys. A value as deep as a text may be is set and read
// whole: neither passes it through the text of the whole section, which is one level deeper.
TEST_F(Tool, DumpMatchesGetAndTakesTheDeepestValue) {
    IN_PRIVATE_TMP([this] {
        const std::string deepest = std::string(1000, '[') + std::string(1000, ']');
        writeFile(conf, "[b]\nobj={\"b\":1,\"a\":[true,null]}\nbad=not json\ndeep=[" + deepest +
                            "]\nk=1\nk=2\n[b]\nlater=1\n");
        const std::string section = out({"config", "get", conf, "b"});
        CHILD_CHECK_EQ("{\"b\":" + section.substr(0, section.size() - 1) + "}\n",
                       out({"config", "dump", conf}));
        CHILD_CHECK_EQ(0,
                       run({"config", "set", conf, "d", "limit=" + deepest, "--create"}).exitCode);
        CHILD_CHECK_EQ("{\"limit\":" + deepest + "}\n", out({"config", "get", conf, "d"}));
        CHILD_CHECK(out({"config", "dump", conf}).find("\"d\":{\"limit\":" + deepest) !=
                    std::string::npos);
    });
}

// Standard output that fails (a full device, a reader gone) is an error with a message, for
// output of every size and from every path the tool writes it.
TEST_F(Tool, FailedStandardOutputIsReported) {
    writeFile(conf, "[a]\nx=1\n");
    std::string many;
    for (int i = 0; i < 100000; ++i) many += "/p" + std::to_string(i) + "\n";
    writeFile(dir.file("paths"), many);
    int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
    close(pipeFds[0]);  // no reader
    // A command that fails before it writes keeps its own exit code.
    std::pair<int, Args> cases[] = {
        {4, {"config", "dump", conf}},
        {1, {"filter", "--from-file", dir.file("none"), "/x"}},
        {4, {"--help"}},
    };
    for (const auto &c : cases) {
        for (int fd : {full, pipeFds[1]}) {
            CommandResult r = runWithOutput(fd, c.second);
            EXPECT_EQ(c.first, r.exitCode) << c.second.back() << " " << r.err;
            EXPECT_EQ(c.first == 4, r.err.find("standard output: ") != std::string::npos) << r.err;
        }
    }
    // Paths streamed from standard input: output fails long before the input ends.
    int input = open(dir.file("paths").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(4, runWithOutput(full, {"filter"}, input).exitCode);
    close(input);
    close(full);
    close(pipeFds[1]);
}

// One run of each pass-through command; the decisions themselves are the library's tests'.
TEST_F(Tool, FilterTemplateShareAndLog) {
    std::string paths = "/a/b.tmp\n/x/keep/f\n/x/drop\n";
    Args rules = {"filter", "--exclude", "/**/*.tmp", "--exclude",
                  "/x/**",  "--include", "/x/keep/**"};
    EXPECT_EQ("/x/keep/f\n", out(rules, paths));
    writeFile(dir.file("vars.json"), "{\"name\":\"x\",\"n\":3}");
    EXPECT_EQ("<\"x\"> 3 ",
              out({"template", "-", "--vars", "@" + dir.file("vars.json"), "--json-strings"},
                  "<{{name}}> {{n}} {{missing}}"));
    EXPECT_EQ("photos\n", out({"share", dir.file("vol/photos/2024/a.jpg")}));
    EXPECT_EQ("{\"file\":\"" + dir.file("app.log") + "\",\"logged\":true}\n",
              out({"--json", "log", "backup", "finished"}));
    EXPECT_TRUE(std::regex_match(readFile(dir.file("app.log")),
                                 std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d backup "
                                            "finished\n")));
}

// The one volume of the mount table is a directory of the test: temporaries land in its
// .telobackup-tmp. A mount point cannot break the text table or drive the terminal.
TEST_F(Tool, VolumesAndTemporaries) {
    IN_PRIVATE_TMP([this] {
        const std::string tmp = dir.file("vol/.telobackup-tmp");
        Json::Value volumes = parse(out({"--json", "volumes"}));
        CHILD_CHECK_EQ(dir.file("vol"), volumes["volumes"][0]["path"].asString());
        CHILD_CHECK_EQ(0u, out({"mktemp", "--volume", "max", "job"}).rfind(tmp + "/job.", 0));
        const std::string folder =
            parse(out({"--json", "mktemp", "--dir", "--volume", "same:" + dir.file("vol")}))["path"]
                .asString();
        CHILD_CHECK_EQ(0700, fileMode(folder));

        const std::string odd = dir.file("a\nb\x1b[31mc\\d");
        CHILD_CHECK(mkdir(odd.c_str(), 0755) == 0);
        writeFile(dir.file("mountinfo"),
                  "20 1 8:1 / " + dir.file("a\\012b\x1b[31mc\\134d") + " rw - ext4 /dev/sdz1 rw\n");
        const std::string table = out({"volumes"});
        CHILD_CHECK(table.find(dir.file("a\\x0ab\\x1b[31mc\\x5cd") + " ") != std::string::npos);
        CHILD_CHECK(table.find('\x1b') == std::string::npos);
        CHILD_CHECK_EQ(odd, parse(out({"--json", "volumes"}))["volumes"][0]["path"].asString());
    });
}
