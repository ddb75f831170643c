// Faults in every system call of the tool's configuration writes. Each change is traced once;
// then it is run again with one occurrence of one call failing (strace's fault injection), for
// every occurrence after the tool's own start-up: EIO everywhere, ENOSPC as well for write,
// fsync and openat. After every run the file must be its old or its new version byte for byte,
// with its mode, owner and extended attributes; exit status 0 only with the new version; a
// message on standard error for every failure; no temporary beside the file.
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <set>
#include <sstream>

#include "tools/tool_fixture.h"

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

const char kInitial[] =
    "# tasks of the fault test\n[global]\nother=\"kept\"\ntaskid_max=3\n"
    "[task1]\nk=1\nname=\"first\"\n[task3]\nname=\"third\"\n";

// A rewrite of a section, the removal of one, and a new section with its id allocated.
struct Change {
    std::string name;
    Args args;  // "FILE" stands for the configuration file
};
const std::vector<Change> kChanges = {
    {"config set", {"config", "set", "FILE", "task1", "k=2", "--string", "note=two words"}},
    {"config delete", {"config", "delete", "FILE", "task3"}},
    {"config new", {"config", "new", "FILE", "task", "k=5"}},
};

// The tool running change `c` on `file` under `prefix` (a tracer), without an application log.
CommandResult runChange(Args prefix, const Change &c, const std::string &file) {
    prefix.push_back(toolPath());
    for (const std::string &arg : c.args) prefix.push_back(arg == "FILE" ? file : arg);
    return runCommand(prefix, "", {{"TELO_LOGFILE", ""}});
}

// The directory of the file every run finds.
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
        std::vector<std::string> names = listDir(dir);
        return names.size() == 1 ? "" : "left beside the file: " + names[0] + " " + names[1];
    }
};

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
// runs as fast as under no tracer for every other call; a run that hangs ends with exit 124.
Args injection(const std::string &strace, const std::string &call, const std::string &error,
               int when) {
    return {programPath("timeout"),
            "60",
            strace,
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

// Runs `change` with occurrence `when` of `call` failing with `error`: what went wrong, or "".
std::string runFault(const std::string &strace, const Change &change, const std::string &call,
                     int when, const std::string &error, const Scene &scene,
                     const std::string &newVersion) {
    scene.reset();
    CommandResult run = runChange(injection(strace, call, error, when), change, scene.file);
    const std::string content = readFile(scene.file);
    std::string problem = scene.attributeProblem();
    const bool isOld = content == kInitial;
    const bool isNew = content == newVersion;
    // A failure says what failed and why: "telobackup-util: <step or file>: <reason>".
    std::string said = run.err.substr(0, run.err.find('\n'));
    const size_t colon = said.find(": ", 17);
    if (run.exitCode == 124) {
        problem = "hung";
    } else if (run.exitCode > 128 || run.exitCode < 0) {
        problem = "ended by signal " + std::to_string(run.exitCode - 128);
    } else if (!problem.empty()) {
    } else if (!isOld && !isNew) {
        problem = "neither old nor new";
    } else if (run.exitCode == 0 && !isNew) {
        problem = "exit 0 without the new version";
    } else if (run.exitCode != 0 && (said.rfind("telobackup-util: ", 0) != 0 ||
                                     colon == std::string::npos || colon + 2 >= said.size())) {
        problem = "failed without saying what and why";
    } else {
        return "";
    }
    return problem + " (exit " + std::to_string(run.exitCode) + ") " + said;
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
    GTEST_SKIP()
        << "the tool is built with the sanitizers, whose runtime cannot take injected faults";
#endif
    const std::string strace = programPath("strace");
    if (strace.empty()) GTEST_SKIP() << "strace is not installed (package strace)";
    TempDir root;
    writeFile(root.file("probe"), "");
    Scene scene = {"", "", canChangeOwner(),
                   setxattr(root.file("probe").c_str(), "user.probe", "1", 1, 0) == 0};

    Args injecting = injection(strace, "getppid", "EIO", 1);
    for (const std::string &arg : helperCommand("injectionProbe")) injecting.push_back(arg);
    CommandResult injected = runCommand(injecting);
    if (injected.exitCode != 0) {
        GTEST_SKIP() << "strace cannot inject faults here (exit " << injected.exitCode
                     << "): " << injected.err;
    }

    // Each change in a directory of its own, its faulty runs in a process of its own, so that
    // the changes run side by side and the runs of two never meet.
    std::vector<pid_t> runners;
    for (size_t c = 0; c < kChanges.size(); ++c) {
        const Change &change = kChanges[c];
        scene.dir = root.file("c" + std::to_string(c));
        scene.file = scene.dir + "/tasks.conf";
        makeDir(scene.dir, 0755);
        // Once to make the IPC tree and the lock files, so that every later run makes the same
        // calls; then traced without faults: the new version, and the calls to fail.
        scene.reset();
        ASSERT_EQ(0, runChange({}, change, scene.file).exitCode) << change.name;
        scene.reset();
        const std::string trace = root.file("trace.txt");
        CommandResult clean =
            runChange({strace, "-f", "-qq", "-e", "signal=none", "-o", trace}, change, scene.file);
        ASSERT_EQ(0, clean.exitCode) << change.name << ": " << clean.err;
        ASSERT_EQ("", scene.attributeProblem()) << change.name;
        const std::string newVersion = readFile(scene.file);
        ASSERT_NE(kInitial, newVersion) << change.name;
        std::map<std::string, Occurrences> calls = callsAfterStartUp(readFile(trace), scene.dir);
        // A trace that was not understood would leave nothing to inject.
        for (const char *needed : {"openat", "write", "fsync", "renameat"}) {
            ASSERT_LT(calls[needed].before, calls[needed].total)
                << change.name << ": no " << needed << " found after the start-up in the trace";
        }
        // The runner's report: a line "CALL#N=ERROR: PROBLEM" per run that went wrong.
        runners.push_back(fork());
        if (runners.back() != 0) continue;
        std::string report;
        for (const auto &call : calls) {
            for (int n = call.second.before + 1;
                 kNotInjected.count(call.first) == 0 && n <= call.second.total; ++n) {
                for (const char *error : {"EIO", "ENOSPC"}) {
                    if (error == std::string("ENOSPC") && kNoSpace.count(call.first) == 0) continue;
                    std::string problem =
                        runFault(strace, change, call.first, n, error, scene, newVersion);
                    if (problem.empty()) continue;
                    report +=
                        call.first + "#" + std::to_string(n) + "=" + error + ": " + problem + "\n";
                }
            }
        }
        writeFile(root.file("report" + std::to_string(c)), report);
        _exit(0);
    }
    for (size_t c = 0; c < kChanges.size(); ++c) {
        EXPECT_EQ(0, waitExitCode(runners[c]));
        EXPECT_EQ("", readFile(root.file("report" + std::to_string(c)))) << kChanges[c].name;
    }
}
