// Other processes for tests: helper modes of the test binary itself ("/proc/self/exe
// --telo-helper=NAME args...", so no test depends on a shell), programs run as a user would, and
// what a process holds (descriptors, children) for leak checks.
#ifndef TELO_TESTS_SUPPORT_PROCESS_H
#define TELO_TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

// A helper receives the arguments after its name and returns the process's exit code.
using HelperFunction = int (*)(const std::vector<std::string> &args);
bool registerHelper(const char *name, HelperFunction fn);
// Runs the helper that argv asks for and returns true with its exit code in `exitCode`.
bool runHelperIfAsked(int argc, char **argv, int &exitCode);

// The argument vector that runs helper `name` of this binary with `args`.
std::vector<std::string> helperCommand(const std::string &name,
                                       const std::vector<std::string> &args = {});

// Waits for `pid`: its exit code, or 128 + the signal number when it was killed.
int waitExitCode(pid_t pid);

struct CommandResult {
    int exitCode = -1;  // as waitExitCode
    std::string out;
    std::string err;
};
// Runs `argv` to its end with the caller's environment plus `env`, `input` on its standard input.
CommandResult runCommand(const std::vector<std::string> &argv, const std::string &input = "",
                         const std::map<std::string, std::string> &env = {});

// The absolute path of the installed program `name` (/usr/bin, /bin, /usr/sbin, /sbin), or "".
std::string programPath(const std::string &name);

// The descriptors open in this process.
std::set<int> openFds();
// Lowers this process's descriptor limit so that only `count` more descriptors can be opened
// (new ones take the lowest free numbers); false when the limit cannot be set.
bool limitNewDescriptors(int count);
// True when this process has no child left, running or zombie (a zombie found is reaped).
bool noChildren();

// Makes every later call of the system call `number` (__NR_...) in this process fail with
// `error`, through a seccomp filter the kernel applies: a real fault, not an interposed libc.
// For a forked child only; there is no way back. False when the kernel refuses the filter or
// this architecture is not one the filter knows.
bool failSystemCall(long number, int error);

}  // namespace testsupport

// Defines a helper mode: TELO_TEST_HELPER(echo) { ...; return 0; } with `args` in scope.
#define TELO_TEST_HELPER(name)                                          \
    static int teloHelper_##name(const std::vector<std::string> &args); \
    static const bool teloHelperRegistered_##name =                     \
        ::testsupport::registerHelper(#name, teloHelper_##name);        \
    static int teloHelper_##name(const std::vector<std::string> &args)

#endif
