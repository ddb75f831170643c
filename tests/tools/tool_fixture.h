// The scene of the end-to-end tests of the installed telobackup-util: a directory of the test's
// own holding everything the tool touches (configuration files, the secret key, the application
// log, a mount table whose one volume is a directory of the test), and the ways to run the tool.
#ifndef TELO_TESTS_TOOLS_TOOL_FIXTURE_H
#define TELO_TESTS_TOOLS_TOOL_FIXTURE_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telobackup/json_text.h"

using namespace testsupport;
using Args = std::vector<std::string>;

// True when a user who is neither owner nor group could run `path` from a private /tmp: every
// directory above it lets others pass, and it is not under /tmp.
inline bool reachableByAnyone(const std::string &path) {
    if (path.rfind("/tmp/", 0) == 0) return false;
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        struct stat st;
        if (stat(path.substr(0, slash).c_str(), &st) != 0 || (st.st_mode & S_IXOTH) == 0) {
            return false;
        }
    }
    return true;
}

// The installed tool. Tests run it as uid 65534 and in a private /tmp, so a build tree under
// /root (mode 0700) or under /tmp gets a copy of the prefix's programs, libraries and shared
// files under /var/tmp, made once per test binary and removed when it ends.
inline std::string toolPath() {
    const char *installed = getenv("TELO_INSTALLED_TOOL");
    if (installed == nullptr) return "";
    static const std::string path = [installed]() -> std::string {
        if (reachableByAnyone(installed)) return installed;
        static TempDir copy;  // under TMPDIR, which the tool tests set to /var/tmp
        chmod(copy.path().c_str(), 0755);
        std::string bin = installed, prefix = bin.substr(0, bin.rfind("/bin/"));
        CommandResult copied =
            runCommand({"/bin/sh", "-c",
                        "mkdir \"$2/lib\" && cp -a \"$1/bin\" \"$1/share\" \"$2/\" && "
                        "cp -a \"$1\"/lib/*.so* \"$2/lib/\"",
                        "sh", prefix, copy.path()});
        if (copied.exitCode != 0) ADD_FAILURE() << "cannot copy the tool: " << copied.err;
        return copy.path() + bin.substr(prefix.size());
    }();
    return path;
}

// In a forked child: becomes the tool run with `args`.
[[noreturn]] inline void execTool(Args args) {
    args.insert(args.begin(), toolPath());
    std::vector<char *> argv;
    for (std::string &arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// A loopback TCP listener with room for `backlog` waiting connections; its port in `port`.
inline int loopbackListener(int backlog, std::string &port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&address), length));
    EXPECT_EQ(0, listen(fd, backlog));
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    port = std::to_string(ntohs(address.sin_port));
    return fd;
}

inline Json::Value parse(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(TELO::Backup::jsonFromString(value, text)) << text;
    return value;
}

// A scenario of the tool in a directory of its own.
class Tool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (toolPath().empty()) GTEST_SKIP() << "TELO_INSTALLED_TOOL is not set";
        mkdir(dir.file("vol").c_str(), 0755);
        writeFile(dir.file("mountinfo"),
                  "20 1 8:1 / " + dir.file("vol") + " rw - ext4 /dev/sdz1 rw\n");
        writeFile(dir.file("shares.conf"), "[photos]\npath=\"" + dir.file("vol/photos") + "\"\n");
    }

    // Runs the tool with its standard output on `stdoutFd` (and input from `stdinFd`, if any);
    // standard error is captured.
    CommandResult runWithOutput(int stdoutFd, const Args &args, int stdinFd = -1) {
        std::string errors = dir.file("stderr.txt");
        pid_t pid = fork();
        if (pid == 0) {
            int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (err < 0 || dup2(stdoutFd, 1) != 1 || dup2(err, 2) != 2) _exit(126);
            if (stdinFd >= 0 && dup2(stdinFd, 0) != 0) _exit(126);
            execTool(args);
        }
        CommandResult result;
        result.exitCode = waitExitCode(pid);
        result.err = readFile(errors);
        return result;
    }

    CommandResult run(Args args, const std::string &input = "",
                      const std::map<std::string, std::string> &changed = {}) {
        args.insert(args.begin(), toolPath());
        std::map<std::string, std::string> env = {{"TELO_SECRET_KEY_FILE", dir.file("secret.key")},
                                                  {"TELO_LOGFILE", dir.file("app.log")},
                                                  {"TELO_SHARES_CONF", dir.file("shares.conf")},
                                                  {"TELO_MOUNTINFO", dir.file("mountinfo")}};
        for (const auto &kv : changed) env[kv.first] = kv.second;
        return runCommand(args, input, env);
    }
    std::string out(const Args &args, const std::string &input = "") {
        return run(args, input).out;
    }
    // "" when the tool fails with `code`, prints nothing and says `says` on standard error in a
    // message of its own; else what it did.
    std::string failsWith(const Args &args, int code, const std::string &says,
                          const std::string &input = "",
                          const std::map<std::string, std::string> &env = {}) {
        CommandResult r = run(args, input, env);
        if (r.exitCode == code && r.out.empty() && r.err.rfind("telobackup-util: ", 0) == 0 &&
            r.err.find(says) != std::string::npos) {
            return "";
        }
        std::string command;
        for (const std::string &arg : args) command += arg + " ";
        return command + "-> " + std::to_string(r.exitCode) + " " + r.out + r.err;
    }

    TempDir dir;
    std::string conf = dir.file("tasks.conf");
};

// Runs a scenario in a child with a private /tmp when the machine allows it, else in a plain
// child.
#define IN_PRIVATE_TMP(...)                                                                   \
    do {                                                                                      \
        std::function<void()> body_ = __VA_ARGS__;                                            \
        ChildResult result_ = runInChild(ChildOptions{.privateTmp = true}, body_);            \
        if (result_.skipped) result_ = runInChild(body_);                                     \
        EXPECT_TRUE(result_.ok()) << result_.message << " (status " << result_.status << ")"; \
    } while (0)

// In a child: fails it with `why` unless that is empty (see Tool::failsWith).
#define CHILD_CHECK_NONE(why)                \
    do {                                     \
        const std::string why_ = (why);      \
        if (!why_.empty()) CHILD_FAIL(why_); \
    } while (0)

#endif
