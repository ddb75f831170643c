// End-to-end tests of what the installed telobackup-util shows a person and a script: errors and
// results as JSON, standard input as a file, values for eval, the probe on a terminal, the
// application log's place, help examples, the manual page and the bash completion.
#include <pty.h>
#include <sys/mount.h>

#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "telobackup/path/path_util.h"
#include "tools/tool_fixture.h"

namespace {

// The lines of `text`, without their newlines.
std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

// With --json, before or after the command, every failure is one JSON object on standard error
// with the exit status in it, and notices are objects too.
TEST_F(Tool, JsonErrorsAndNotices) {
    writeFile(conf, "[a]\nx=1\n");
    for (const auto &c : {std::make_pair(1, Args{"config", "get", conf, "nosuch"}),
                          std::make_pair(2, Args{"config", "get", conf, "a", "--no-such-option"}),
                          std::make_pair(3, Args{"config", "get", dir.path(), "a"})}) {
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
    EXPECT_EQ("", run({"filter", "--quiet", "--exclude", "*.tmp", "/a.tmp"}).err);
    // After "--" it is a path like any other.
    EXPECT_EQ("--json\n", out({"filter", "--", "--json"}));
}

// "-" reads the configuration from standard input, for every command that only reads.
TEST_F(Tool, StandardInputAsFile) {
    const std::string text = "#c\n[b]\ny=\"z\"\n[a]\nx=1\nname=\"n\"\n";
    writeFile(conf, text);
    for (Args args : {Args{"config", "sections", "-"}, Args{"config", "keys", "-", "a"},
                      Args{"config", "get", "-", "a", "name"}, Args{"config", "dump", "-"},
                      Args{"--json", "config", "get", "-", "b"}}) {
        CommandResult input = run(args, text);
        EXPECT_EQ(0, input.exitCode) << input.err;
        EXPECT_NE("", input.out);
        std::replace(args.begin(), args.end(), std::string("-"), conf);
        EXPECT_EQ(out(args), input.out) << args[1];
    }
    // The first copy of a section is the one read, from standard input as from a file.
    EXPECT_EQ("name\nx\n", out({"config", "keys", "-", "a"}, text + "[a]\nlater=1\n"));
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
        CHILD_CHECK_EQ(std::string("count='3'\n"),
                       out({"config", "get", conf, "s", "count", "--format", "sh"}));
        CommandResult r = run({"config", "get", conf, "s", "--format", "sh", "--json"});
        CHILD_CHECK_EQ(std::string("config get: --format sh and --json exclude each other"),
                       parse(r.err)["error"].asString());
    });
}

// Without TELO_LOGFILE the tool logs to /var/log/telobackup/telobackup-util.log, making the
// directory 0750 and the file 0640; a log that cannot be written is exit status 4.
TEST_F(Tool, DefaultApplicationLog) {
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [this] {
        // A private, empty /var/log, so the machine's own is not touched.
        CHILD_CHECK(mount("tmpfs", "/var/log", "tmpfs", 0, "mode=0755") == 0);
        CHILD_CHECK(unsetenv("TELO_LOGFILE") == 0);
        umask(0);
        const std::string log = "/var/log/telobackup/telobackup-util.log";
        CHILD_CHECK_EQ(0, runCommand({toolPath(), "log", "first", "line"}).exitCode);
        CHILD_CHECK_EQ(0, runCommand({toolPath(), "log", "second"}).exitCode);
        CHILD_CHECK_EQ(0750, fileMode("/var/log/telobackup"));
        CHILD_CHECK_EQ(0640, fileMode(log));
        CHILD_CHECK(std::regex_match(readFile(log), std::regex("\\S+ first line\n\\S+ second\n")));
        // Not beside the program.
        CHILD_CHECK(!exists(TELO::Backup::Path::dirname(toolPath()) + "/Quarnix.log"));
        CHILD_CHECK(chmod("/var/log/telobackup", 0) == 0);
        ChildResult user = runInChild(ChildOptions{.dropPrivileges = true}, [&] {
            CHILD_CHECK_EQ(4, runCommand({toolPath(), "log", "denied"}).exitCode);
        });
        if (!user.skipped && !user.ok()) CHILD_FAIL(user.message);
    });
}

// The manual page names every command and every option the parser knows, in the command's own
// section (or, for the writing options, in the section they share), and has the sections a
// manual has, the exit status once; every command's --help ends with examples.
TEST_F(Tool, ManualAndHelpCoverTheParser) {
    std::string prefix = TELO::Backup::Path::dirname(TELO::Backup::Path::dirname(toolPath()));
    std::string page = readFile(prefix + "/share/man/man1/telobackup-util.1");
    page = std::regex_replace(page, std::regex(R"(\\f[BIR]|\\&|\\e)"), "");
    std::map<std::string, std::string> sections;  // ".SH"/".SS" title -> its text
    std::string title;
    for (const std::string &line : linesOf(page)) {
        if (line.rfind(".SH ", 0) == 0 || line.rfind(".SS ", 0) == 0) {
            title = line.substr(4);
            EXPECT_EQ(0u, sections.count(title)) << title << " twice";
        }
        sections[title] += line + "\n";
    }
    for (const char *title : {"NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "SECURITY", "SEE ALSO",
                              "EXIT STATUS", "FILES", "ENVIRONMENT"}) {
        EXPECT_EQ(1u, sections.count(title)) << title;
    }
    for (const char *file :
         {"/tmp/telobackup", "/etc/telobackup/secret.key", "/etc/samba/smb.conf",
          "/etc/telobackup/shares.conf", "/var/log/telobackup/telobackup-util.log"}) {
        EXPECT_NE(std::string::npos, sections["FILES"].find(file)) << file;
    }
    for (const char *variable : {"TELO_LOGFILE", "TELO_SECRET_KEY_FILE", "TELO_SHARES_CONF",
                                 "TELO_SMB_CONF", "TELO_MOUNTINFO"}) {
        EXPECT_NE(std::string::npos, sections["ENVIRONMENT"].find(variable)) << variable;
    }
    auto mentions = [](const std::string &text, const std::string &word) {
        return std::regex_search(text, std::regex("(^|[^-A-Za-z0-9])" +
                                                  std::regex_replace(word, std::regex("-"), "\\-") +
                                                  "($|[^-A-Za-z0-9])"));
    };
    // Every --help ends with two or three examples, each a command line and its comment.
    auto expectExamples = [this](const std::string &command) {
        std::istringstream words(command + " --help");
        std::string help = out(Args(std::istream_iterator<std::string>(words), {}));
        size_t examples = help.rfind("\nExamples:\n");
        ASSERT_NE(std::string::npos, examples) << help;
        std::vector<std::string> lines = linesOf(help.substr(examples + 11));
        while (!lines.empty() && lines.back().empty()) lines.pop_back();
        ASSERT_TRUE(lines.size() == 4 || lines.size() == 6) << help;
        for (size_t i = 0; i < lines.size(); i += 2) {
            EXPECT_TRUE(std::regex_search(lines[i], std::regex("^  \\$ .*telobackup-util")))
                << lines[i];
            EXPECT_EQ(0u, lines[i + 1].rfind("      ", 0)) << lines[i + 1];
        }
    };
    expectExamples("");
    Json::Value tree = parse(out({"--generate-tree"}));
    ASSERT_GT(tree["commands"].size(), 15u);
    for (const Json::Value &option : tree["options"]) {
        EXPECT_TRUE(mentions(sections["GLOBAL OPTIONS"], option.asString())) << option.asString();
    }
    const std::set<std::string> writing = {"--lock", "--wait", "--dry-run", "--force"};
    for (const Json::Value &command : tree["commands"]) {
        std::string name = command["command"].asString();
        expectExamples(name);
        if (command["options"].size() <= 2 && command["arguments"].empty()) continue;  // a group
        const std::string &text = sections[name];
        for (const Json::Value &option : command["options"]) {
            std::string flag = option.asString();
            bool shared = writing.count(flag) != 0 &&
                          text.find("writing options") != std::string::npos &&
                          mentions(sections["Writing options"], flag);
            EXPECT_TRUE(flag == "-h" || flag == "--help" || mentions(text, flag) || shared)
                << name << " " << flag;
        }
        for (const Json::Value &argument : command["arguments"]) {
            EXPECT_TRUE(mentions(text, argument.asString())) << name << " " << argument.asString();
        }
        EXPECT_TRUE(std::regex_search(text, std::regex("\\$ [^\n]*telobackup-util")))
            << name << ": no section or no example";
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
    // Once the listener is gone, the attempt says why it failed; a listener is found.
    EXPECT_EQ("refused",
              parse(out({"--json", "probe", "127.0.0.1", port}))["tries"][0]["outcome"].asString());
    listener = loopbackListener(8, port);
    EXPECT_EQ("127.0.0.1\n", out({"probe", "127.0.0.1", port, "--timeout", "2"}));
    close(listener);
}

// The completion completes commands, options and their values, sections and keys from the FILE
// on the command line, lock tokens, session ids, and file names with blanks.
TEST_F(Tool, BashCompletion) {
    std::string bash = programPath("bash");
    if (bash.empty()) GTEST_SKIP() << "no bash";
    std::string prefix = TELO::Backup::Path::dirname(TELO::Backup::Path::dirname(toolPath()));
    std::string script = prefix + "/share/bash-completion/completions/telobackup-util";
    IN_PRIVATE_TMP([&] {
        // A directory of known names, for the file name cases.
        const std::string here = dir.file("c"), tasks = here + "/tasks.conf";
        makeDir(here);
        makeDir(here + "/a dir");
        CHILD_CHECK(chdir(here.c_str()) == 0);
        writeFile(here + "/vars one.json", "{}");
        writeFile(tasks, "[task1]\nkeep=14\nname=\"n\"\n[my tasks]\nz=1\n");
        CHILD_CHECK_EQ(
            0, run({"config", "set", tasks, "task1", "k=1", "--lock", "shared.lock"}).exitCode);
        std::string session = out({"session", "create"});
        session.pop_back();
        // Each case: the words after the program, the last one being completed, and the
        // replies, "|" between them.
        std::pair<Args, std::string> cases[] = {
            {{"config", "g"}, "get"},
            {{"config", "get", "tasks.conf", ""}, "my\\ tasks|task1"},
            {{"--json", "config", "keys", tasks, "task1", ""}, ""},
            {{"config", "get", tasks, "task1", ""}, "k|keep|name"},
            {{"config", "set", tasks, "task1", "ke"}, "keep="},
            {{"config", "get", "-", ""}, ""},
            {{"config", "set", tasks, "task1", "--lock", ""}, "shared.lock"},
            {{"filter", "--rule", "=", "ex"}, "exclude-wins"},
            {{"filter", "-"},
             "--exclude|--from-file|--help|--include|--null|--print-excluded|--prior-include|"
             "--quiet|--rule|-0|-h"},
            {{"mktemp", "--volume", ""}, "max|max-ext|max-ext-btrfs|same:"},
            {{"mktemp", "--volume", "same", ":", here + "/a"}, here + "/a\\ dir/"},
            {{"session", "destroy", session.substr(0, 6)}, session},
            {{"template", "x", "--vars", "@", "va"}, "vars\\ one.json"},
            {{"template", "x", "--vars", "@"}, "@a\\ dir/|@tasks.conf|@vars\\ one.json"},
        };
        std::string driver =
            "source \"$1\"; shift\n"
            "COMP_WORDS=(\"$@\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMPREPLY=()\n"
            "_telobackup_util\n"
            "printf '%s\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort | paste -sd '|'\n";
        for (const auto &c : cases) {
            Args args = {bash, "-c", driver, "bash", script, toolPath()};
            args.insert(args.end(), c.first.begin(), c.first.end());
            CommandResult r = runCommand(args);
            if (r.out != c.second + "\n") CHILD_FAIL(c.first.back() + " -> " + r.out + r.err);
        }
    });
}
