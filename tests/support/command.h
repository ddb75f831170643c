// Runs a program as a user would (no shell): arguments, extra environment, standard input, and
// its standard output, standard error and exit code captured.
#ifndef TELO_TESTS_SUPPORT_COMMAND_H
#define TELO_TESTS_SUPPORT_COMMAND_H

#include <map>
#include <string>
#include <vector>

namespace testsupport {

struct CommandResult {
    int exitCode = -1;  // 128 + signal number when killed
    std::string out;
    std::string err;
};

// Runs `argv` with the caller's environment plus `env` (a value of "\x01" unsets a variable),
// feeding `input` to its standard input.
CommandResult runCommand(const std::vector<std::string> &argv, const std::string &input = "",
                         const std::map<std::string, std::string> &env = {});

}  // namespace testsupport

#endif
