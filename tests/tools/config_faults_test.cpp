// Faults in every system call of the tool's configuration writes. Each change is traced once;
// then it is run again with one occurrence of one call failing (strace's fault injection), for
// every occurrence after the tool's own start-up: EIO everywhere, ENOSPC as well for write,
// fsync and openat. After every run the file must be its old or its new version byte for byte,
// with its mode, owner and extended attributes; exit status 0 only with the new version; a
// message on standard error for every failure; no temporary beside the file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telobackup/option_map.h"

using namespace testsupport;
using Args = std::vector<std::string>;

namespace {

// Calls that cannot fail in a way a program must handle (ids, signal masks, memory, locks of
// the C library, the exit), left out of the injection.
const std::set<std::string> kNotInjected = {"geteuid", "getuid",   "getegid",        "getgid",
                                            "getpid",  "gettid",   "rt_sigprocmask", "rt_sigaction",
                                            "brk",     "mmap",     "munmap",         "mremap",
                                            "madvise", "mprotect", "futex",          "exit_group",
                                            "exit",    "rseq",     "clock_gettime",  "sched_yield"};
// Calls that also get ENOSPC, as a full disk gives it.
const std::set<std::string> kNoSpace = {"write", "fsync", "openat"};

// Seconds after which a run counts as hung.
constexpr int kRunLimit = 60;

const char kInitial[] =
    "# tasks of the fault test\n"
    "[global]\n"
    "other=\"kept\"\n"
    "taskid_max=3\n"
    "[task1]\n"
    "k=1\n"
    "name=\"first\"\n"
    "[task3]\n"
    "name=\"third\"\n";
const char kSecret[] = "s3cret";

struct Change {
    std::string name;
    Args args;  // "FILE" stands for the configuration file
    std::string input;
};

const std::vector<Change> &changes() {
    static const std::vector<Change> all = {
        {"config set", {"config", "set", "FILE", "task1", "k=2", "--string", "note=two words"}, ""},
        {"config set --secret",
         {"config", "set", "FILE", "task3", "--secret", "password"},
         std::string(kSecret) + "\n"},
        {"config unset", {"config", "unset", "FILE", "task1", "name"}, ""},
        {"config delete", {"config", "delete", "FILE", "task3"}, ""},
        {"config new", {"config", "new", "FILE", "task", "k=5"}, ""},
        {"config new --increasing",
         {"config", "new", "FILE", "task", "--increasing", "--string", "name=inc"},
         ""},
    };
    return all;
}

std::string toolPath() {
    const char *path = getenv("TELO_INSTALLED_TOOL");
    return path != nullptr ? path : "";
}

struct ToolRun {
    int exitCode = -1;  // as waitExitCode; -2 when it hung
    std::string err;
};

// Runs `argv` with `input` on standard input, standard error kept, everything else quiet,
// ended after kRunLimit seconds.
ToolRun runQuietly(const Args &argv, const std::string &input,
                   const std::vector<std::string> &env) {
    int in = memfd_create("in", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    ToolRun run;
    if (in < 0 || err < 0 || pwrite(in, input.data(), input.size(), 0) < 0) return run;
    std::vector<char *> args, envp;
    for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    for (const std::string &var : env) envp.push_back(const_cast<char *>(var.c_str()));
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
class Scene {
  public:
    Scene(const std::string &dir, bool owned, bool attributes)
        : dir_(dir), file_(dir + "/tasks.conf"), owned_(owned), attributes_(attributes) {}

    const std::string &file() const { return file_; }
    const std::string &dir() const { return dir_; }

    // The old file alone in its directory: what one run left is not blamed on the next.
    void reset() const {
        for (const std::string &name : listDir(dir_)) unlink((dir_ + "/" + name).c_str());
        writeFile(file_, kInitial, 0640);
        if (owned_ && chown(file_.c_str(), 65534, 65534) != 0) ADD_FAILURE() << "chown";
        if (attributes_ && setxattr(file_.c_str(), "user.origin", "fixture", 7, 0) != 0) {
            ADD_FAILURE() << "setxattr";
        }
    }

    // What is wrong with the attributes and the neighbours of the file; "" when nothing.
    std::string attributeProblem() const {
        struct stat st;
        if (lstat(file_.c_str(), &st) != 0) return "file gone";
        if (!S_ISREG(st.st_mode) || (st.st_mode & 07777) != 0640) return "mode changed";
        if (owned_ && (st.st_uid != 65534 || st.st_gid != 65534)) return "owner changed";
        std::string origin;
        if (attributes_ && (!attributeOf(file_, "user.origin", origin) || origin != "fixture")) {
            return "user attribute lost";
        }
        std::vector<std::string> names = listDir(dir_);
        if (names != std::vector<std::string>{"tasks.conf"}) {
            std::string left;
            for (const std::string &name : names) {
                if (name != "tasks.conf") left += " " + name;
            }
            return "left beside the file:" + left;
        }
        return "";
    }

  private:
    std::string dir_, file_;
    bool owned_, attributes_;
};

Args withFile(Args args, const std::string &file) {
    for (std::string &arg : args) {
        if (arg == "FILE") arg = file;
    }
    return args;
}

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

// The occurrences of each call after the tool's start-up in a trace: the first call that names
// the configuration's directory ends the start-up. Per name, the number of occurrences before
// that point and in all.
struct Occurrences {
    int before = 0;
    int total = 0;
};
std::map<std::string, Occurrences> callsAfterStartUp(const std::string &trace,
                                                     const std::string &dir, int &traced) {
    std::map<std::string, Occurrences> calls;
    std::istringstream lines(trace);
    std::string line;
    bool started = false;
    traced = 0;
    while (std::getline(lines, line)) {
        // "1234  name(args) = result"; resumed calls and signals are no new occurrences.
        size_t begin = line.find_first_not_of(' ', line.find(' '));
        size_t paren = line.find('(');
        if (begin == std::string::npos || paren == std::string::npos || paren < begin) continue;
        std::string name = line.substr(begin, paren - begin);
        if (name.empty() || name.find_first_of(" <+-") != std::string::npos) continue;
        if (!started && name != "execve" && line.find(dir) != std::string::npos) started = true;
        Occurrences &count = calls[name];
        ++count.total;
        if (!started) {
            ++count.before;
        } else if (kNotInjected.count(name) == 0) {
            ++traced;
        }
    }
    return calls;
}

// strace failing occurrence `when` of `call` with `error` in the command that follows, which
// runs as fast as under no tracer for every other call.
Args injection(const std::string &strace, const std::string &call, const std::string &error,
               int when) {
    return {strace,
            "-f",
            "--seccomp-bpf",
            "-qq",
            "-o",
            "/dev/null",
            "-e",
            "signal=none",
            "-e",
            "trace=" + call,
            "-e",
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
const char *const kOutcomeNames[] = {"old, failed", "new, exit 0", "new, failed", "WRONG"};

struct Result {
    Outcome outcome;
    std::string detail;  // for a wrong one
};

std::string describe(const Fault &fault) {
    return changes()[fault.change].name + " with " + fault.call + "#" +
           std::to_string(fault.occurrence) + "=" + fault.error;
}

// True when a message says what failed and why: "telobackup-util: <step or file>: <reason>".
bool namesStepAndReason(const std::string &said) {
    const std::string prefix = "telobackup-util: ";
    if (said.compare(0, prefix.size(), prefix) != 0) return false;
    size_t colon = said.find(": ", prefix.size());
    return colon != std::string::npos && colon > prefix.size() && colon + 2 < said.size();
}

// The first line of a message with the run's own paths and the lock's hash taken out, so that
// the same failure reads the same in every scene.
std::string generalised(std::string said, const std::string &root) {
    // ROOT/wNcM/ is a scene: DIR.
    for (size_t at; (at = said.find(root)) != std::string::npos;) {
        size_t end = at + root.size();
        if (said.compare(end, 2, "/w") == 0) {
            size_t slash = said.find('/', end + 1);
            end = slash == std::string::npos ? said.size() : slash;
            said.replace(at, end - at, "DIR");
        } else {
            said.replace(at, root.size(), "ROOT");
        }
    }
    // The lock file's hash: "tasks.conf." and 16 hex digits.
    const std::string lock = "tasks.conf.";
    for (size_t at = said.find(lock); at != std::string::npos; at = said.find(lock, at + 1)) {
        size_t digits = at + lock.size();
        if (said.size() >= digits + 16 &&
            said.find_first_not_of("0123456789abcdef", digits) >= digits + 16) {
            said.replace(digits, 16, "HASH");
        }
    }
    return said;
}

}  // namespace

// Fails getppid, which nothing else calls: exit 0 only when the tracer's injection reached it.
TELO_TEST_HELPER(injectionProbe) {
    (void)args;
    errno = 0;
    return syscall(SYS_getppid) == -1 && errno == EIO ? 0 : 1;
}

TEST(ConfigFaults, EveryFailingCallLeavesTheOldOrTheNewFile) {
    if (toolPath().empty()) GTEST_SKIP() << "TELO_INSTALLED_TOOL is not set";
#ifdef __SANITIZE_ADDRESS__
    // The sanitizers' runtime makes system calls of its own (pipe2 to probe memory, write to
    // report) and aborts when they fail, so injected faults would test the runtime, not the tool.
    GTEST_SKIP() << "the tool is built with the sanitizers, whose runtime cannot take injected faults";
#endif
    const std::string strace = programPath("strace");
    if (strace.empty()) GTEST_SKIP() << "strace is not installed (package strace)";
    const auto started = std::chrono::steady_clock::now();
    TempDir root;
    const bool owned = canChangeOwner();
    const std::string probe = root.file("probe");
    writeFile(probe, "");
    const bool attributes = setxattr(probe.c_str(), "user.probe", "1", 1, 0) == 0;
    unlink(probe.c_str());

    // The environment of every run: the test's own key, no log file, no leak check (it cannot
    // run under a tracer).
    const std::string key = root.file("secret.key");
    std::vector<std::string> env = {"PATH=/usr/bin:/bin", "TELO_SECRET_KEY_FILE=" + key,
                                    "TELO_LOGFILE=", "ASAN_OPTIONS=detect_leaks=0"};
    setenv("TELO_SECRET_KEY_FILE", key.c_str(), 1);  // for reading the secret back
    {
        const std::string scratch = root.file("scratch.conf");
        ToolRun made = runQuietly(
            {toolPath(), "config", "set", scratch, "s", "--create", "--secret", "k"}, "x\n", env);
        ASSERT_EQ(0, made.exitCode) << made.err;
        unlink(scratch.c_str());
    }
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
        for (size_t c = 0; c < changes().size(); ++c) {
            std::string dir = root.file("w" + std::to_string(w) + "c" + std::to_string(c));
            makeDir(dir, 0755);
            scenes[w].emplace_back(dir, owned, attributes);
        }
    }

    // Each change traced once without faults: its new version, and the calls to fail.
    std::vector<std::string> newVersion(changes().size());
    std::vector<int> traced(changes().size());
    std::vector<Fault> faults;
    for (size_t c = 0; c < changes().size(); ++c) {
        const Change &change = changes()[c];
        const Scene &scene = scenes[0][c];
        // Once in every scene to make the IPC tree and the lock files, so that every later run
        // finds them and makes the same calls.
        for (int w = kWorkers - 1; w >= 0; --w) {
            scenes[w][c].reset();
            Args warmArgs = withFile(change.args, scenes[w][c].file());
            warmArgs.insert(warmArgs.begin(), toolPath());
            ToolRun warm = runQuietly(warmArgs, change.input, env);
            ASSERT_EQ(0, warm.exitCode) << change.name << ": " << warm.err;
        }
        Args args = withFile(change.args, scene.file());
        args.insert(args.begin(), toolPath());
        scene.reset();
        const std::string trace = root.file("trace.txt");
        Args traceArgs = {strace, "-f", "-qq", "-e", "signal=none", "-o", trace};
        traceArgs.insert(traceArgs.end(), args.begin(), args.end());
        ToolRun clean = runQuietly(traceArgs, change.input, env);
        ASSERT_EQ(0, clean.exitCode) << change.name << ": " << clean.err;
        ASSERT_EQ("", scene.attributeProblem()) << change.name;
        newVersion[c] = readFile(scene.file());
        ASSERT_NE(kInitial, newVersion[c]) << change.name;
        std::map<std::string, Occurrences> calls =
            callsAfterStartUp(readFile(trace), scene.dir(), traced[c]);
        // A trace that was not understood would leave nothing to inject.
        for (const char *needed : {"openat", "write", "fsync", "renameat"}) {
            ASSERT_LT(calls[needed].before, calls[needed].total)
                << change.name << ": no " << needed << " found after the start-up in the trace";
        }
        for (const auto &call : calls) {
            if (kNotInjected.count(call.first) != 0) continue;
            for (int n = call.second.before + 1; n <= call.second.total; ++n) {
                faults.push_back({c, call.first, n, "EIO"});
                if (kNoSpace.count(call.first) != 0) faults.push_back({c, call.first, n, "ENOSPC"});
            }
        }
    }

    // The faulty runs, shared out between the workers; each reports one line per run.
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
        std::string out;
        for (size_t f = static_cast<size_t>(w); f < faults.size(); f += kWorkers) {
            const Fault &fault = faults[f];
            const Change &change = changes()[fault.change];
            const Scene &scene = scenes[w][fault.change];
            scene.reset();
            Args args = injection(strace, fault.call, fault.error, fault.occurrence);
            args.push_back(toolPath());
            Args tool = withFile(change.args, scene.file());
            args.insert(args.end(), tool.begin(), tool.end());
            ToolRun run = runQuietly(args, change.input, env);

            std::string content = readFile(scene.file()), ciphertext;
            std::string problem = scene.attributeProblem();
            bool isOld = content == kInitial;
            bool isNew = withoutCiphertext(content, &ciphertext) ==
                         withoutCiphertext(newVersion[fault.change]);
            if (isNew && !ciphertext.empty()) {
                TELO::Backup::OptionMap map;
                map.optSet("password", ciphertext);
                isNew = map.optSecret("password", "") == kSecret;
            }
            Outcome outcome = kWrong;
            if (run.exitCode == -2) {
                problem = "hung";
            } else if (run.exitCode > 128 || run.exitCode < 0) {
                problem = "ended by signal " + std::to_string(run.exitCode - 128);
            } else if (!problem.empty()) {
            } else if (!isOld && !isNew) {
                problem = "neither old nor new";
            } else if (run.exitCode == 0 && !isNew) {
                problem = "exit 0 without the new version";
            } else if (run.exitCode != 0 &&
                       !namesStepAndReason(run.err.substr(0, run.err.find('\n')))) {
                problem = "failed without saying what and why";
            } else {
                outcome = isOld ? kOldFailed : run.exitCode == 0 ? kNewOk : kNewFailed;
            }
            std::string said = run.err.substr(0, run.err.find('\n'));
            for (char &ch : said) {
                if (ch == '\t') ch = ' ';
            }
            out += std::to_string(f) + "\t" + std::to_string(outcome) + "\t" + problem + "\t" +
                   std::to_string(run.exitCode) + "\t" + said + "\n";
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

    // The tables: per change, and per call and change, the faults injected and how the runs
    // ended; then what the failed runs said.
    const size_t kChanges = changes().size();
    std::vector<std::array<int, kOutcomes>> byChange(kChanges);
    std::map<std::string, std::vector<std::array<int, kOutcomes>>> byCall;
    std::map<std::string, int> messages;
    std::istringstream rows(lines);
    std::string row;
    size_t reported = 0;
    while (std::getline(rows, row)) {
        std::istringstream fields(row);
        std::string index, outcome, problem, exitCode, said;
        std::getline(fields, index, '\t');
        std::getline(fields, outcome, '\t');
        std::getline(fields, problem, '\t');
        std::getline(fields, exitCode, '\t');
        std::getline(fields, said);
        const Fault &fault = faults.at(std::stoul(index));
        int o = std::stoi(outcome);
        ++byChange[fault.change][o];
        auto &cells = byCall[fault.call];
        cells.resize(kChanges);
        ++cells[fault.change][o];
        if (exitCode != "0") ++messages["exit " + exitCode + ": " + generalised(said, root.path())];
        ++reported;
        EXPECT_NE(kWrong, o) << describe(fault) << ": " << problem << " (exit " << exitCode << ") "
                             << said;
    }
    EXPECT_EQ(faults.size(), reported);

    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf(
        "\nFaults in the configuration writes: EIO at every occurrence of every call after the "
        "tool's start-up, ENOSPC also at write, fsync and openat (%s, %s)\n",
        owned ? "file owned by 65534" : "file owned by the caller",
        attributes ? "with a user attribute" : "no user attributes here");
    printf("%-24s %7s %8s %12s %12s %12s %6s\n", "change", "traced", "injected", kOutcomeNames[0],
           kOutcomeNames[1], kOutcomeNames[2], kOutcomeNames[3]);
    std::array<int, kOutcomes> total{};
    int totalTraced = 0;
    for (size_t c = 0; c < kChanges; ++c) {
        int injected = 0;
        for (int o = 0; o < kOutcomes; ++o) {
            injected += byChange[c][o];
            total[o] += byChange[c][o];
        }
        totalTraced += traced[c];
        printf("%-24s %7d %8d %12d %12d %12d %6d\n", changes()[c].name.c_str(), traced[c], injected,
               byChange[c][0], byChange[c][1], byChange[c][2], byChange[c][3]);
    }
    printf("%-24s %7d %8zu %12d %12d %12d %6d\n", "all", totalTraced, reported, total[0], total[1],
           total[2], total[3]);

    printf("\nPer call and change, old/new/new-failed (and !N runs that were wrong):\n%-13s",
           "call");
    const char *const shortNames[] = {"set",    "set --secret", "unset",
                                      "delete", "new",          "new --incr."};
    for (size_t c = 0; c < kChanges; ++c) printf(" %12s", shortNames[c]);
    printf("\n");
    for (const auto &call : byCall) {
        printf("%-13s", call.first.c_str());
        for (const auto &n : call.second) {
            std::string cell = std::to_string(n[kOldFailed]) + "/" + std::to_string(n[kNewOk]) +
                               "/" + std::to_string(n[kNewFailed]);
            if (n[kWrong] != 0) cell += " !" + std::to_string(n[kWrong]);
            printf(" %12s", cell.c_str());
        }
        printf("\n");
    }

    printf("\nWhat the failed runs said (first line; runs):\n");
    for (const auto &message : messages) printf("%5d  %s\n", message.second, message.first.c_str());
    printf("Intermediate states allowed: none (each change is one rewrite). %.1f s\n", seconds);
    fflush(stdout);
}
