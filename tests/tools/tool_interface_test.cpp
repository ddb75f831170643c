// End-to-end tests of what the installed telobackup-util shows a person and a script: errors and
// results as JSON, standard input as a file, values for eval, the probe on a terminal, the
// application log's place, help examples and the manual page.
#include <pty.h>
#include <sys/mount.h>

#include <iterator>
#include <regex>
#include <sstream>

#include "telobackup/path/path_util.h"
#include "tools/tool_fixture.h"

// With --json, before or after the command, every failure is one JSON object on standard error
// with the exit status in it, and notices are objects too.
TEST_F(Tool, JsonErrorsAndNotices) {
    writeFile(conf, "[a]\nx=1\n");
    for (const auto &c :
         {std::make_pair(1, Args{"config", "get", conf, "nosuch"}),
          std::make_pair(2, Args{"config", "get", conf, "a", "--no-such-option"})}) {
        for (bool first : {true, false}) {
            Args args = c.second;
            args.insert(first ? args.begin() : args.end(), "--json");
            CommandResult r = run(args);
            Json::Value error = parse(r.err);
            EXPECT_EQ(c.first, r.exitCode) << r.err;
            EXPECT_EQ(c.first, error["exit"].asInt()) << r.err;
            EXPECT_NE("", error["error"].asString()) << r.err;
        }
    }
    CommandResult r = run({"filter", "--json", "--exclude", "*.tmp", "/a.tmp"});
    EXPECT_EQ("{\"kept\":true,\"path\":\"/a.tmp\"}\n", r.out);
    EXPECT_EQ(
        "{\"notice\":\"`*.tmp` matches only paths without a slash; for every directory "
        "write `/**/*.tmp`\"}\n",
        r.err);
}

// "-" reads the configuration from standard input, for every command that only reads.
TEST_F(Tool, StandardInputAsFile) {
    const std::string text = "#c\n[b]\ny=\"z\"\n[a]\nx=1\nname=\"n\"\n";
    writeFile(conf, text);
    for (Args args : {Args{"config", "sections", "-"}, Args{"config", "get", "-", "a", "name"},
                      Args{"config", "dump", "-"}}) {
        CommandResult input = run(args, text);
        EXPECT_EQ(0, input.exitCode) << input.err;
        EXPECT_NE("", input.out);
        std::replace(args.begin(), args.end(), std::string("-"), conf);
        EXPECT_EQ(out(args), input.out) << args[1];
    }
    // Nothing of the copy stays behind.
    EXPECT_EQ(std::vector<std::string>{}, listDir(dir.file("vol")));
}

// --format sh prints lines that sh's eval turns back into the very values, whatever they hold.
TEST_F(Tool, ShellFormatEvaluatesBack) {
    IN_PRIVATE_TMP([this] {
        const std::string odd = "it's \"quoted\" $HOME `date` \\n back\\slash\nsecond line '' ";
        CHILD_CHECK_EQ(0, run({"config", "set", conf, "s", "--create", "--string", "text=" + odd,
                               "count=3", "list=[1,\"a'b\"]", "--string", "empty="})
                              .exitCode);
        writeFile(dir.file("vars.sh"), out({"config", "get", conf, "s", "--format", "sh"}));
        // sh evaluates the output, then writes each variable back out byte for byte.
        CommandResult shell =
            runCommand({programPath("sh"), "-c",
                        "eval \"$(cat \"$1\")\" && printf %s \"$text\" > \"$2\" && "
                        "printf '%s|%s|%s' \"$count\" \"$list\" \"$empty\"",
                        "sh", dir.file("vars.sh"), dir.file("back.txt")});
        CHILD_CHECK_EQ(0, shell.exitCode);
        CHILD_CHECK_EQ(odd, readFile(dir.file("back.txt")));
        CHILD_CHECK_EQ(std::string("3|[1,\"a'b\"]|"), shell.out);
        CommandResult r = run({"config", "get", conf, "s", "--format", "sh", "--json"});
        CHILD_CHECK_EQ(std::string("config get: --format sh and --json exclude each other"),
                       parse(r.err)["error"].asString());
    });
}

// Without TELO_LOGFILE the tool logs to /var/log/telobackup/telobackup-util.log, making the
// directory 0750 and the file 0640.
TEST_F(Tool, DefaultApplicationLog) {
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [this] {
        // A private, empty /var/log, so the machine's own is not touched.
        CHILD_CHECK(mount("tmpfs", "/var/log", "tmpfs", 0, "mode=0755") == 0);
        CHILD_CHECK(unsetenv("TELO_LOGFILE") == 0);
        umask(0);
        const std::string log = "/var/log/telobackup/telobackup-util.log";
        CHILD_CHECK_EQ(0, runCommand({toolPath(), "log", "first", "line"}).exitCode);
        CHILD_CHECK_EQ(0750, fileMode("/var/log/telobackup"));
        CHILD_CHECK_EQ(0640, fileMode(log));
    });
}

// Every command and option the parser knows is in the manual page, so that the two cannot drift,
// and every command's --help ends with two or three examples, each a command line and its comment.
TEST_F(Tool, ManualAndHelpCoverTheParser) {
    std::string prefix = TELO::Backup::Path::dirname(TELO::Backup::Path::dirname(toolPath()));
    std::string page = readFile(prefix + "/share/man/man1/telobackup-util.1");
    page = std::regex_replace(page, std::regex(R"(\\f[BIR]|\\&|\\e)"), "");
    auto mentions = [&page](const std::string &word) {
        return std::regex_search(page, std::regex("(^|[^-A-Za-z0-9])" +
                                                  std::regex_replace(word, std::regex("-"), "\\-") +
                                                  "($|[^-A-Za-z0-9])"));
    };
    const std::regex examples(
        "\nExamples:\n(  \\$ [^\n]*telobackup-util[^\n]*\n      [^\n]+\n){2,3}\n*$");
    auto expectExamples = [&](const std::string &command) {
        std::istringstream words(command + " --help");
        std::string help = out(Args(std::istream_iterator<std::string>(words), {}));
        EXPECT_TRUE(std::regex_search(help, examples)) << help;
    };
    expectExamples("");
    Json::Value tree = parse(out({"--generate-tree"}));
    ASSERT_GT(tree["commands"].size(), 15u);
    for (const Json::Value &option : tree["options"]) {
        EXPECT_TRUE(mentions(option.asString())) << option.asString();
    }
    for (const Json::Value &command : tree["commands"]) {
        const std::string name = command["command"].asString();
        expectExamples(name);
        EXPECT_TRUE(mentions(name)) << name;
        for (const Json::Value &option : command["options"]) {
            const std::string flag = option.asString();
            EXPECT_TRUE(flag == "-h" || flag == "--help" || mentions(flag)) << name << " " << flag;
        }
    }
}

// On a terminal a probe that takes more than a second names the address it is trying, and a
// silent port is told apart from a refusing one; not on a terminal, no progress. A listener is
// found.
TEST_F(Tool, ProbeShowsProgressOnATerminal) {
    // A listener whose queue of unaccepted connections is full, so that the kernel drops the
    // next connection's SYN and a connect can only time out.
    std::string port;
    int listener = loopbackListener(0, port);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int queued[2];
    for (int &client : queued) {
        client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        connect(client, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    }
    int terminal = -1;
    pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) execTool({"probe", "127.0.0.1", port, "--timeout", "2"});
    std::string shown;
    char buffer[512];
    for (ssize_t n; (n = read(terminal, buffer, sizeof(buffer))) > 0;) shown.append(buffer, n);
    close(terminal);
    EXPECT_EQ(6, waitExitCode(pid)) << shown;
    EXPECT_NE(std::string::npos, shown.find("telobackup-util: trying 127.0.0.1\u2026\r\n"))
        << shown;
    EXPECT_NE(std::string::npos,
              shown.find("127.0.0.1:" + port + ": timed out (no answer in time)"))
        << shown;
    CommandResult r = run({"probe", "127.0.0.1", port, "--timeout", "1"});
    EXPECT_EQ(6, r.exitCode);
    EXPECT_EQ(std::string::npos, r.err.find("trying")) << r.err;
    for (int fd : {queued[0], queued[1], listener}) close(fd);
    // A listener is found.
    listener = loopbackListener(8, port);
    EXPECT_EQ("127.0.0.1\n", out({"probe", "127.0.0.1", port, "--timeout", "2"}));
    close(listener);
}
