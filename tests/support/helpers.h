// Helper modes of a test binary: cross-process tests re-execute the binary itself
// ("/proc/self/exe --telo-helper=NAME args...") instead of depending on a shell.
#ifndef TELO_TESTS_SUPPORT_HELPERS_H
#define TELO_TESTS_SUPPORT_HELPERS_H

#include <string>
#include <vector>

namespace testsupport {

// A helper receives the arguments after its name and returns the process's exit code.
using HelperFunction = int (*)(const std::vector<std::string> &args);

// Registers `fn` under `name`; used through TELO_TEST_HELPER.
bool registerHelper(const char *name, HelperFunction fn);

// Path of the running test binary.
std::string selfPath();

// The argument vector that runs helper `name` of this binary with `args`.
std::vector<std::string> helperCommand(const std::string &name,
                                       const std::vector<std::string> &args = {});

}  // namespace testsupport

// Defines a helper mode: TELO_TEST_HELPER(echo) { ...; return 0; } with `args` in scope.
#define TELO_TEST_HELPER(name)                                          \
    static int teloHelper_##name(const std::vector<std::string> &args); \
    static const bool teloHelperRegistered_##name =                     \
        ::testsupport::registerHelper(#name, teloHelper_##name);        \
    static int teloHelper_##name(const std::vector<std::string> &args)

#endif
