// Faults in every system call of the tool's configuration writes. Each change is traced once;
// then it is run again with one occurrence of one call failing (strace's fault injection), for
// every occurrence after the tool's own start-up: EIO everywhere, ENOSPC as well for write,
// fsync and openat. After every run the file must be its old or its new version byte for byte,
// with its mode, owner and extended attributes; exit status 0 only with the new version; a
// message on standard error for every failure; no temporary beside the file.
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <array>
#include <set>
#include <sstream>

#include "telobackup/option_map.h"
#include "tools/tool_fixture.h"

namespace {

// Calls that cannot fail in a way a program must handle (ids, signal masks, memory, locks of
// the C library, the exit), left out of the injection.
const std::set<std::string> kNotInjected = {
    "geteuid", "getuid", "getegid", "getgid",  "getpid",   "gettid", "rt_sigprocmask",
    "rt_sigaction", "brk", "mmap", "munmap", "mremap", "madvise", "mprotect", "futex",
    "exit_group", "exit", "rseq", "clock_gettime", "sched_yield"};
// Calls that also get ENOSPC, as a full disk gives it.
const std::set<std::string> kNoSpace = {"write", "fsync", "openat"};
constexpr int kRunLimit = 60;  // seconds after which a run counts as hung

const char kInitial[] =
    "# tasks of the fault test\n[global]\nother=\"kept\"\ntaskid_max=3\n"
    "[task1]\nk=1\nname=\"first\"\n[task3]\nname=\"third\"\n";
const char kSecret[] = "s3cret";

struct Change {
    std::string name;
    Args args;  // "FILE" stands for the configuration file
    std::string input;
};
const std::vector<Change> kChanges = {
    {"config set", {"config", "set", "FILE", "task1", "k=2", "--string", "note=two words"}, ""},
    {"config set --secret", {"config", "set", "FILE", "task3", "--secret", "password"},
     std::string(kSecret) + "\n"},
    {"config unset", {"config", "unset", "FILE", "task1", "name"}, ""},
    {"config delete", {"config", "delete", "FILE", "task3"}, ""},
    {"config new", {"config", "new", "FILE", "task", "k=5"}, ""},
    {"config new --increasing",
     {"config", "new", "FILE", "task", "--increasing", "--string", "name=inc"}, ""},
};

// The tool (after `prefix`) running change `c` on `file`.
Args command(Args prefix, const Change &c, const std::string &file) {
    prefix.push_back(toolPath());
    for (const std::string &arg : c.args) prefix.push_back(arg == "FILE" ? file : arg);
    return prefix;
}

struct ToolRun {
    int exitCode = -1;  // as waitExitCode; -2 when it hung
    std::string err;
};

// Runs `argv` with `input` on standard input and only `env`, standard error kept, ended after
// kRunLimit seconds.
ToolRun runQuietly(const Args &argv, const std::string &input, const Args &env) {
    int in = memfd_create("in", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    ToolRun run;
    if (in < 0 || err < 0 || pwrite(in, input.data(), input.size(), 0) < 0) return run;
    std::vector<char *> args, envp;
    for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    for (const std::string &var : env) envp.push_back(const_cast<char *>(var.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        if (null < 0 || dup2(in, 0) < 0 || dup2(null, 1) < 0 || dup2(err, 2) < 0) _exit(126);
        alarm(kRunLimit);  // kept across exec: a hang ends the run
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    run.exitCode = WIFSIGNALED(status) ? (WTERMSIG(status) == SIGALRM ? -2 : 128 + WTERMSIG(status))
                                       : WEXITSTATUS(status);
    char buffer[4096];
    for (ssize_t n; (n = pread(err, buffer, sizeof(buffer), run.err.size())) > 0;) {
        run.err.append(buffer, static_cast<size_t>(n));
    }
    close(in);
    close(err);
    return run;
}

// One directory with the file of one change, as every run finds it.
struct Scene {
    std::string dir, file;
    bool owned, attributes;

    // The old file alone in its directory: what one run left is not blamed on the next.
    void reset() const {
        for (const std::string &name : listDir(dir)) unlink((dir + "/" + name).c_str());
        writeFile(file, kInitial, 0640);
        if (owned && chown(file.c_str(), 65534, 65534) != 0) ADD_FAILURE() << "chown";
        if (attributes && setxattr(file.c_str(), "user.origin", "fixture", 7, 0) != 0) {
            ADD_FAILURE() << "setxattr";
        }
    }

    // What is wrong with the attributes and the neighbours of the file; "" when nothing.
    std::string attributeProblem() const {
        struct stat st;
        std::string origin;
        if (lstat(file.c_str(), &st) != 0) return "file gone";
        if (!S_ISREG(st.st_mode) || (st.st_mode & 07777) != 0640) return "mode changed";
        if (owned && (st.st_uid != 65534 || st.st_gid != 65534)) return "owner changed";
        if (attributes && (!attributeOf(file, "user.origin", origin) || origin != "fixture")) {
            return "user attribute lost";
        }
        std::string left;
        for (const std::string &name : listDir(dir)) {
            if (name != "tasks.conf") left += " " + name;
        }
        return left.empty() ? "" : "left beside the file:" + left;
    }
};

// The text of a file with the ciphertext of the secret replaced, since every encryption differs.
std::string withoutCiphertext(const std::string &text, std::string *ciphertext = nullptr) {
    const std::string key = "\npassword=\"";
    size_t begin = text.find(key);
    if (begin == std::string::npos) return text;
    begin += key.size();
    size_t end = text.find('"', begin);
    if (end == std::string::npos) return text;
    if (ciphertext != nullptr) *ciphertext = text.substr(begin, end - begin);
    return text.substr(0, begin) + "<ciphertext>" + text.substr(end);
}

// Per call name in a trace, the occurrences before the tool's start-up ended (the first call
// that names the configuration's directory ends it) and in all.
struct Occurrences {
    int before = 0, total = 0;
};
std::map<std::string, Occurrences> callsAfterStartUp(const std::string &trace,
                                                     const std::string &dir) {
    std::map<std::string, Occurrences> calls;
    std::istringstream lines(trace);
    bool started = false;
    for (std::string line; std::getline(lines, line);) {
        // "1234  name(args) = result"; resumed calls and signals are no new occurrences.
        size_t begin = line.find_first_not_of(' ', line.find(' ')), paren = line.find('(');
        if (begin == std::string::npos || paren == std::string::npos || paren < begin) continue;
        std::string name = line.substr(begin, paren - begin);
        if (name.empty() || name.find_first_of(" <+-") != std::string::npos) continue;
        if (!started && name != "execve" && line.find(dir) != std::string::npos) started = true;
        ++calls[name].total;
        if (!started) ++calls[name].before;
    }
    return calls;
}

// strace failing occurrence `when` of `call` with `error` in the command that follows, which
// runs as fast as under no tracer for every other call.
Args injection(const std::string &strace, const std::string &call, const std::string &error,
               int when) {
    return {strace, "-f", "--seccomp-bpf", "-qq", "-o", "/dev/null", "-e", "signal=none",
            "-e", "trace=" + call, "-e",
            "inject=" + call + ":error=" + error + ":when=" + std::to_string(when)};
}

struct Fault {
    size_t change;
    std::string call;
    int occurrence;
    const char *error;
};

// How one faulty run ended.
enum Outcome { kOldFailed, kNewOk, kNewFailed, kWrong, kOutcomes };

// True when a message says what failed and why: "telobackup-util: <step or file>: <reason>".
bool namesStepAndReason(const std::string &said) {
    const std::string prefix = "telobackup-util: ";
    size_t colon = said.find(": ", prefix.size());
    return said.compare(0, prefix.size(), prefix) == 0 && colon != std::string::npos &&
           colon > prefix.size() && colon + 2 < said.size();
}

// Runs `fault` in `scene`: the outcome, and what was wrong when it is kWrong.
Outcome runFault(const std::string &strace, const Fault &fault, const Scene &scene,
                 const std::string &newVersion, const Args &env, std::string &problem) {
    const Change &change = kChanges[fault.change];
    scene.reset();
    ToolRun run = runQuietly(
        command(injection(strace, fault.call, fault.error, fault.occurrence), change, scene.file),
        change.input, env);
    std::string content = readFile(scene.file), ciphertext;
    problem = scene.attributeProblem();
    bool isOld = content == kInitial;
    bool isNew = withoutCiphertext(content, &ciphertext) == withoutCiphertext(newVersion);
    if (isNew && !ciphertext.empty()) {
        TELO::Backup::OptionMap map;
        map.optSet("password", ciphertext);
        isNew = map.optSecret("password", "") == kSecret;
    }
    std::string said = run.err.substr(0, run.err.find('\n'));
    if (run.exitCode == -2) {
        problem = "hung";
    } else if (run.exitCode > 128 || run.exitCode < 0) {
        problem = "ended by signal " + std::to_string(run.exitCode - 128);
    } else if (!problem.empty()) {
    } else if (!isOld && !isNew) {
        problem = "neither old nor new";
    } else if (run.exitCode == 0 && !isNew) {
        problem = "exit 0 without the new version";
    } else if (run.exitCode != 0 && !namesStepAndReason(said)) {
        problem = "failed without saying what and why";
    } else {
        return isOld ? kOldFailed : run.exitCode == 0 ? kNewOk : kNewFailed;
    }
    problem += " (exit " + std::to_string(run.exitCode) + ") " + said;
    for (char &ch : problem) ch = ch == '\t' || ch == '\n' ? ' ' : ch;
    return kWrong;
}

}  // namespace

// Fails getppid, which nothing else calls: exit 0 only when the tracer's injection reached it.
TELO_TEST_HELPER(injectionProbe) {
    (void)args;
    errno = 0;
    return syscall(SYS_getppid) == -1 && errno == EIO ? 0 : 1;
}

TEST(ConfigFaults, EveryFailingCallLeavesTheOldOrTheNewFile) {
    if (getenv("TELO_INSTALLED_TOOL") == nullptr) GTEST_SKIP() << "TELO_INSTALLED_TOOL is not set";
#ifdef __SANITIZE_ADDRESS__
    // The sanitizers' runtime makes system calls of its own (pipe2 to probe memory, write to
    // report) and aborts when they fail, so injected faults would test the runtime, not the tool.
    GTEST_SKIP() << "the tool is built with the sanitizers, whose runtime cannot take injected faults";
#endif
    const std::string strace = programPath("strace");
    if (strace.empty()) GTEST_SKIP() << "strace is not installed (package strace)";
    TempDir root;
    const bool owned = canChangeOwner();
    writeFile(root.file("probe"), "");
    const bool attributes = setxattr(root.file("probe").c_str(), "user.probe", "1", 1, 0) == 0;
    unlink(root.file("probe").c_str());

    // The environment of every run: the test's own key, no log file, no leak check (it cannot
    // run under a tracer).
    const std::string key = root.file("secret.key");
    const Args env = {"PATH=/usr/bin:/bin", "TELO_SECRET_KEY_FILE=" + key, "TELO_LOGFILE=",
                      "ASAN_OPTIONS=detect_leaks=0"};
    setenv("TELO_SECRET_KEY_FILE", key.c_str(), 1);  // for reading the secret back
    ToolRun made = runQuietly({toolPath(), "config", "set", root.file("scratch.conf"), "s",
                               "--create", "--secret", "k"},
                              "x\n", env);
    ASSERT_EQ(0, made.exitCode) << made.err;
    Args injecting = injection(strace, "getppid", "EIO", 1);
    for (const std::string &arg : helperCommand("injectionProbe")) injecting.push_back(arg);
    ToolRun injected = runQuietly(injecting, "", env);
    if (injected.exitCode != 0) {
        GTEST_SKIP() << "strace cannot inject faults here (exit " << injected.exitCode
                     << "): " << injected.err;
    }

    // Two workers, each with a scene per change, so that runs of one change never meet.
    const int kWorkers = 2;
    std::vector<std::vector<Scene>> scenes(kWorkers);
    for (int w = 0; w < kWorkers; ++w) {
        for (size_t c = 0; c < kChanges.size(); ++c) {
            std::string dir = root.file("w" + std::to_string(w) + "c" + std::to_string(c));
            makeDir(dir, 0755);
            scenes[w].push_back({dir, dir + "/tasks.conf", owned, attributes});
        }
    }

    // Each change traced once without faults: its new version, and the calls to fail.
    std::vector<std::string> newVersion(kChanges.size());
    std::vector<int> traced(kChanges.size());
    std::vector<Fault> faults;
    for (size_t c = 0; c < kChanges.size(); ++c) {
        const Change &change = kChanges[c];
        // Once in every scene to make the IPC tree and the lock files, so that every later run
        // finds them and makes the same calls.
        for (int w = kWorkers - 1; w >= 0; --w) {
            scenes[w][c].reset();
            ToolRun warm = runQuietly(command({}, change, scenes[w][c].file), change.input, env);
            ASSERT_EQ(0, warm.exitCode) << change.name << ": " << warm.err;
        }
        const Scene &scene = scenes[0][c];
        scene.reset();
        const std::string trace = root.file("trace.txt");
        ToolRun clean = runQuietly(
            command({strace, "-f", "-qq", "-e", "signal=none", "-o", trace}, change, scene.file),
            change.input, env);
        ASSERT_EQ(0, clean.exitCode) << change.name << ": " << clean.err;
        ASSERT_EQ("", scene.attributeProblem()) << change.name;
        newVersion[c] = readFile(scene.file);
        ASSERT_NE(kInitial, newVersion[c]) << change.name;
        std::map<std::string, Occurrences> calls = callsAfterStartUp(readFile(trace), scene.dir);
        // A trace that was not understood would leave nothing to inject.
        for (const char *needed : {"openat", "write", "fsync", "renameat"}) {
            ASSERT_LT(calls[needed].before, calls[needed].total)
                << change.name << ": no " << needed << " found after the start-up in the trace";
        }
        for (const auto &call : calls) {
            if (kNotInjected.count(call.first) != 0) continue;
            for (int n = call.second.before + 1; n <= call.second.total; ++n, ++traced[c]) {
                faults.push_back({c, call.first, n, "EIO"});
                if (kNoSpace.count(call.first) != 0) faults.push_back({c, call.first, n, "ENOSPC"});
            }
        }
    }

    // The faulty runs, shared out between the workers; each reports one line per run:
    // "index<TAB>outcome<TAB>problem".
    int report[2];
    ASSERT_EQ(0, pipe2(report, O_CLOEXEC));
    std::vector<pid_t> workers;
    for (int w = 0; w < kWorkers; ++w) {
        pid_t pid = fork();
        if (pid != 0) {
            workers.push_back(pid);
            continue;
        }
        close(report[0]);
        std::string out, problem;
        for (size_t f = static_cast<size_t>(w); f < faults.size(); f += kWorkers) {
            const Fault &fault = faults[f];
            Outcome outcome = runFault(strace, fault, scenes[w][fault.change],
                                       newVersion[fault.change], env, problem);
            out += std::to_string(f) + "\t" + std::to_string(outcome) + "\t" + problem + "\n";
        }
        _exit(write(report[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1);
    }
    close(report[1]);
    std::string lines;
    char buffer[65536];
    for (ssize_t n; (n = read(report[0], buffer, sizeof(buffer))) > 0;) {
        lines.append(buffer, static_cast<size_t>(n));
    }
    close(report[0]);
    for (pid_t pid : workers) EXPECT_EQ(0, waitExitCode(pid));

    // Per change, the faults injected and how the runs ended.
    std::vector<std::array<int, kOutcomes>> byChange(kChanges.size());
    std::istringstream rows(lines);
    size_t reported = 0;
    for (std::string index, outcome, problem; std::getline(rows, index, '\t') &&
                                              std::getline(rows, outcome, '\t') &&
                                              std::getline(rows, problem);) {
        const Fault &fault = faults.at(std::stoul(index));
        ++byChange[fault.change][std::stoi(outcome)];
        ++reported;
        EXPECT_NE(kWrong, std::stoi(outcome))
            << kChanges[fault.change].name << " with " << fault.call << "#" << fault.occurrence
            << "=" << fault.error << ": " << problem;
    }
    EXPECT_EQ(faults.size(), reported);
    printf("\nFaults in the configuration writes (%s, %s)\n%-24s %7s %12s %12s %12s %6s\n",
           owned ? "file owned by 65534" : "file owned by the caller",
           attributes ? "with a user attribute" : "no user attributes here", "change", "traced",
           "old, failed", "new, exit 0", "new, failed", "WRONG");
    for (size_t c = 0; c < kChanges.size(); ++c) {
        printf("%-24s %7d %12d %12d %12d %6d\n", kChanges[c].name.c_str(), traced[c],
               byChange[c][0], byChange[c][1], byChange[c][2], byChange[c][3]);
    }
    fflush(stdout);
}
