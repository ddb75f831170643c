// End-to-end tests of the installed telobackup-util, run as a user would run it. Everything the
// tool touches lives in the test's own directory (configuration files, the secret key, a mount
// table whose one volume is a directory of the test), except the IPC tree, which a child with a
// private /tmp keeps away from the machine's real one where that is allowed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <set>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"

using namespace testsupport;

namespace {

std::string toolPath() {
    const char *path = getenv("TELO_INSTALLED_TOOL");
    return path != nullptr ? path : "";
}

Json::Value parse(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(TELO::Backup::jsonFromString(value, text)) << text;
    return value;
}

// A scenario of the tool in a directory of its own.
class Tool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (toolPath().empty()) GTEST_SKIP() << "TELO_INSTALLED_TOOL is not set";
        env_["TELO_SECRET_KEY_FILE"] = dir.file("secret.key");
        env_["TELO_LOGFILE"] = dir.file("app.log");
        env_["TELO_SHARES_CONF"] = dir.file("shares.conf");
        env_["TELO_MOUNTINFO"] = dir.file("mountinfo");
        mkdir(dir.file("vol").c_str(), 0755);
        writeFile(dir.file("mountinfo"),
                  "20 1 8:1 / " + dir.file("vol") + " rw - ext4 /dev/sdz1 rw\n");
        writeFile(dir.file("shares.conf"), "[photos]\npath=\"" + dir.file("vol/photos") + "\"\n");
    }

    CommandResult run(std::vector<std::string> args, const std::string &input = "") {
        args.insert(args.begin(), toolPath());
        return runCommand(args, input, env_);
    }

    // Runs `args` expecting exit code `code` and, when it fails, one line on standard error.
    CommandResult expect(int code, const std::vector<std::string> &args,
                         const std::string &input = "") {
        CommandResult r = run(args, input);
        std::string command;
        for (const std::string &a : args) command += a + " ";
        EXPECT_EQ(code, r.exitCode) << command << "\nout: " << r.out << "\nerr: " << r.err;
        if (code != 0) {
            EXPECT_EQ(0u, r.out.size()) << command;
            EXPECT_EQ(r.err.find("telobackup-util: "), 0u) << command << r.err;
        }
        return r;
    }

    TempDir dir;
    std::string conf = dir.file("tasks.conf");
    std::map<std::string, std::string> env_;
};

// Runs a scenario in a child with a private /tmp when the machine allows it, else in a plain
// child.
#define IN_PRIVATE_TMP(...)                                                                   \
    do {                                                                                      \
        std::function<std::string()> body_ = __VA_ARGS__;                                     \
        ChildResult result_ = runInChild(body_, ChildOptions{.privateTmp = true});            \
        if (result_.skipped) result_ = runInChild(body_);                                     \
        EXPECT_TRUE(result_.ok()) << result_.message << " (status " << result_.status << ")"; \
    } while (0)

}  // namespace

TEST_F(Tool, StoresATaskWithASecretAndReadsItBack) {
    IN_PRIVATE_TMP([this] {
        CommandResult r = run({"config", "new", conf, "task", "--increasing", "name=\"nightly\"",
                               "--string", "source=/srv/photos", "--secret", "password"},
                              "s3cret-value\n");
        CHILD_CHECK_EQ(0, r.exitCode);
        CHILD_CHECK_EQ(std::string("task1\n"), r.out);
        // The secret is neither in the file nor printed without --secret.
        CHILD_CHECK(readFile(conf).find("s3cret-value") == std::string::npos);
        r = run({"--json", "config", "get", conf, "task1"});
        Json::Value task = parse(r.out);
        CHILD_CHECK_EQ(std::string("nightly"), task["name"].asString());
        CHILD_CHECK_EQ(std::string("/srv/photos"), task["source"].asString());
        CHILD_CHECK(task["password"].isString() && task["password"].asString() != "s3cret-value");
        CHILD_CHECK(r.out.find("s3cret-value") == std::string::npos);
        r = run({"config", "get", conf, "task1", "password", "--secret"});
        CHILD_CHECK_EQ(std::string("s3cret-value\n"), r.out);
        r = run({"--json", "config", "new", conf, "task", "retries=3"});
        CHILD_CHECK_EQ(std::string("task2"), parse(r.out)["section"].asString());
        CHILD_CHECK_EQ(2, parse(r.out)["id"].asInt());

        r = run({"--json", "config", "sections", conf});
        CHILD_CHECK_EQ(std::string("[\"global\",\"task1\",\"task2\"]\n"), r.out);
        CHILD_CHECK_EQ(
            0, run({"config", "set", conf, "task1", "retries=5", "--string", "note=two words"})
                   .exitCode);
        CHILD_CHECK_EQ(0, run({"config", "unset", conf, "task1", "name"}).exitCode);
        CHILD_CHECK_EQ(0, run({"config", "delete", conf, "task2"}).exitCode);
        Json::Value all = parse(run({"config", "dump", conf}).out);
        CHILD_CHECK_EQ(std::string("two words"), all["task1"]["note"].asString());
        CHILD_CHECK_EQ(5, all["task1"]["retries"].asInt());
        CHILD_CHECK(!all["task1"].isMember("name") && !all.isMember("task2"));
        CHILD_CHECK_EQ(1, all["global"]["taskid_max"].asInt());  // task2 was not --increasing
        CHILD_CHECK_EQ(std::string("5\n"), run({"config", "get", conf, "task1", "retries"}).out);
        return std::string();
    });
}

// Several processes allocating at once, with the default lock token, get distinct sections.
TEST_F(Tool, ConcurrentNewSectionsAreDistinct) {
    IN_PRIVATE_TMP([this] {
        constexpr int kProcesses = 4, kEach = 10;
        std::vector<pid_t> pids;
        for (int p = 0; p < kProcesses; ++p) {
            pid_t pid = fork();
            if (pid == 0) {
                for (int i = 0; i < kEach; ++i) {
                    if (run({"config", "new", conf, "job", "--increasing"}).exitCode != 0) _exit(1);
                }
                _exit(0);
            }
            pids.push_back(pid);
        }
        for (pid_t pid : pids) {
            int status = 0;
            CHILD_CHECK(waitpid(pid, &status, 0) == pid && status == 0);
        }
        Json::Value names = parse(run({"--json", "config", "sections", conf}).out);
        std::set<std::string> distinct;
        for (const Json::Value &name : names) distinct.insert(name.asString());
        CHILD_CHECK_EQ(size_t(kProcesses * kEach + 1), distinct.size());
        CHILD_CHECK_EQ(names.size(), distinct.size());
        return std::string();
    });
}

// Every exit code from a real condition; failed commands leave every file byte-identical.
TEST_F(Tool, ExitCodesAndUntouchedFiles) {
    IN_PRIVATE_TMP([this] {
        // From the test's directory, so that nothing may be made in the current one either.
        CHILD_CHECK(chdir(dir.path().c_str()) == 0);
        std::string original = "#top\n[a]\nx=1\n[b]\ny=\"z\"\n";
        writeFile(conf, original, 0640);
        std::vector<std::string> entries = listDir(dir.path());
        auto untouched = [&] {
            return readFile(conf) == original && listDir(dir.path()) == entries;
        };
        std::vector<std::pair<int, std::vector<std::string>>> cases = {
            {1, {"config", "get", dir.file("missing.conf"), "a"}},
            {1, {"config", "get", conf, "nosuch"}},
            {1, {"config", "get", conf, "a", "nokey"}},
            {1, {"config", "set", conf, "nosuch", "k=1"}},
            {1, {"config", "delete", conf, "nosuch"}},
            {2, {"config", "set", conf, "a", "k=not json"}},
            {2, {"config", "set", conf, "a", "novalue"}},
            {2, {"config", "set", conf, "a", "bad\nkey=1"}},
            {2, {"config", "new", conf, "job", "#k=1"}},
            {2, {"config", "new", conf, "job", "--string", "k =v"}},
            {2, {"config", "get", conf}},
            {2, {"config", "frobnicate", conf}},
            {2, {"filter", "--rule", "sideways", "/x"}},
            {2, {"template", conf, "--vars", "[1,2]"}},
            {3, {"config", "get", dir.path(), "a"}},
            {3, {"filter", "--from-file", conf, "/x"}},
            {5, {"config", "set", conf, "a", "k=1", "--lock", "no/such/dir"}},
            {6, {"probe", "127.0.0.1", "1", "--timeout", "1"}},
            {1, {"share", "/elsewhere/x"}},
            {1, {"session", "path", "sess.absent"}},
            {1, {"mktemp", "--volume", "same:/nonexistent"}},
            {1, {"session", "create", "--volume", "same:/nonexistent"}},
        };
        for (const auto &c : cases) {
            std::string command;
            for (const std::string &a : c.second) command += a + " ";
            CommandResult r = run(c.second);
            if (r.exitCode != c.first || !r.out.empty() ||
                std::count(r.err.begin(), r.err.end(), '\n') < 1) {
                return command + "-> " + std::to_string(r.exitCode) + " " + r.err;
            }
            if (!untouched()) return command + "changed a file";
        }
        return std::string();
    });
}

// Writes that cannot be made: an unprivileged user in a directory it may not write.
TEST_F(Tool, CannotWriteIsExitCodeFour) {
    if (!canChangeOwner()) GTEST_SKIP() << "needs root to run the tool as another user";
    writeFile(conf, "[a]\nx=1\n", 0666);
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    EXPECT_CHILD_OK(
        [this] {
            CommandResult r = run({"config", "set", conf, "a", "x=2", "--lock", "e2e-write"});
            CHILD_CHECK_EQ(4, r.exitCode);
            CHILD_CHECK_EQ(std::string("[a]\nx=1\n"), readFile(conf));
            return std::string();
        },
        ChildOptions{.dropPrivileges = true, .privateTmp = true});
}

TEST_F(Tool, FilterTemplateShareAndLog) {
    // Paths from arguments and from standard input, both rules, printed kept or excluded.
    std::vector<std::string> rules = {"filter", "--exclude", "/**/*.tmp", "--exclude",
                                      "/x/**",  "--include", "/x/keep/**"};
    std::string paths = "/a/b.tmp\n/a/c\n/x/keep/f\n/x/drop\n";
    EXPECT_EQ("/a/c\n/x/keep/f\n", run(rules, paths).out);
    auto excluded = rules;
    excluded.push_back("--print-excluded");
    EXPECT_EQ("/a/b.tmp\n/x/drop\n", run(excluded, paths).out);
    auto strict = rules;
    strict.insert(strict.end(), {"--rule", "exclude-wins", "/x/keep/f", "/a/c"});
    EXPECT_EQ("", run(strict).out);
    writeFile(dir.file("patterns"), "# comment\nexclude\t/**/*.tmp\nprior\t/a/**\n");
    EXPECT_EQ(std::string("/a/b.tmp\0/b/c\0", 14),
              run({"filter", "-0", "--from-file", dir.file("patterns")},
                  std::string("/a/b.tmp\0/b/c.tmp\0/b/c\0", 23))
                  .out);
    std::vector<std::string> json = {"--json"};
    json.insert(json.end(), rules.begin(), rules.end());
    json.push_back("/x/drop");
    EXPECT_EQ(false, parse(run(json).out)["kept"].asBool());

    writeFile(dir.file("t"), "Task {{name}} ({{n}}) {{missing}}");
    EXPECT_EQ("Task nightly (3) ",
              run({"template", dir.file("t"), "--vars", "{\"name\":\"nightly\",\"n\":3}"}).out);
    writeFile(dir.file("vars.json"), "{\"name\":\"x\"}");
    EXPECT_EQ("<\"x\">",
              run({"template", "-", "--vars", "@" + dir.file("vars.json"), "--json-strings"},
                  "<{{name}}>")
                  .out);

    EXPECT_EQ("photos\n", run({"share", dir.file("vol/photos/2024/a.jpg")}).out);
    EXPECT_EQ("photos",
              parse(run({"--json", "share", dir.file("vol/photos")}).out)["share"].asString());

    EXPECT_EQ(0, run({"log", "backup", "finished"}).exitCode);
    EXPECT_TRUE(std::regex_match(readFile(dir.file("app.log")),
                                 std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d backup "
                                            "finished\n")));
}

TEST_F(Tool, ProbeFindsAListener) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener, 8));
    socklen_t length = sizeof(address);
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    std::string port = std::to_string(ntohs(address.sin_port));
    EXPECT_EQ("127.0.0.1\n", run({"probe", "127.0.0.1", port, "--timeout", "2"}).out);
    Json::Value result = parse(run({"--json", "probe", "127.0.0.1", port}).out);
    EXPECT_EQ(0, result["result"].asInt());
    EXPECT_EQ("127.0.0.1", result["ip"].asString());
    close(listener);
}

// The one volume of the mount table is a directory of the test: temporaries and sessions land
// in its .telobackup-tmp.
TEST_F(Tool, VolumesTemporariesAndSessions) {
    IN_PRIVATE_TMP([this] {
        std::string tmp = dir.file("vol/.telobackup-tmp");
        Json::Value volumes = parse(run({"--json", "volumes"}).out);
        CHILD_CHECK_EQ(1u, volumes["volumes"].size());
        CHILD_CHECK_EQ(dir.file("vol"), volumes["volumes"][0]["path"].asString());
        CHILD_CHECK_EQ(std::string("ext4"), volumes["volumes"][0]["type"].asString());
        CHILD_CHECK_EQ(tmp, volumes["choices"]["max-ext"].asString());
        CHILD_CHECK(run({"volumes"}).out.find(dir.file("vol")) != std::string::npos);

        CommandResult r = run({"mktemp", "--volume", "max", "job"});
        CHILD_CHECK(r.out.compare(0, tmp.size() + 5, tmp + "/job.") == 0);
        Json::Value folder =
            parse(run({"--json", "mktemp", "--dir", "--volume", "same:" + dir.file("vol")}).out);
        CHILD_CHECK(folder["directory"].asBool());
        CHILD_CHECK_EQ(0700, fileMode(folder["path"].asString()));

        Json::Value session = parse(run({"--json", "session", "create", "--volume", "max"}).out);
        std::string id = session["id"].asString();
        CHILD_CHECK(std::regex_match(id, std::regex("seln\\.[A-Za-z0-9]{6}")));
        CHILD_CHECK_EQ(session["path"].asString() + "\n", run({"session", "path", id}).out);
        CHILD_CHECK_EQ(0, run({"session", "destroy", id}).exitCode);
        CHILD_CHECK_EQ(1, run({"session", "path", id}).exitCode);
        std::string local = run({"session", "create"}).out;
        CHILD_CHECK(local.compare(0, 5, "sess.") == 0);
        CHILD_CHECK_EQ(0, run({"session", "destroy", local.substr(0, local.size() - 1)}).exitCode);
        return std::string();
    });
}

TEST_F(Tool, HelpVersionManualAndCompletion) {
    for (std::vector<std::string> args : {std::vector<std::string>{"--help"},
                                          {"config", "--help"},
                                          {"config", "new", "--help"},
                                          {"filter", "--help"},
                                          {"session", "destroy", "--help"}}) {
        CommandResult r = run(args);
        EXPECT_EQ(0, r.exitCode);
        EXPECT_NE(std::string::npos, r.out.find("Usage:")) << args[0];
    }
    EXPECT_EQ(0u, run({"--version"}).out.find("telobackup-util "));
    // Installed beside the tool: the manual page and the completion, from the same help text.
    std::string prefix = TELO::Backup::Path::dirname(TELO::Backup::Path::dirname(toolPath()));
    std::string man = readFile(prefix + "/share/man/man1/telobackup-util.1");
    EXPECT_EQ(0u, man.find(".TH TELOBACKUP-UTIL 1"));
    EXPECT_NE(std::string::npos, man.find("Create the section PREFIX<N>"));
    std::string completion =
        readFile(prefix + "/share/bash-completion/completions/telobackup-util");
    EXPECT_NE(std::string::npos, completion.find("complete -F _telobackup_util telobackup-util"));
    EXPECT_NE(std::string::npos, completion.find("\" config new\") commands="));
}
