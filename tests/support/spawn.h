// Starting helper modes of the test binary as separate processes (fork + execv, no shell).
#ifndef TELO_TESTS_SUPPORT_SPAWN_H
#define TELO_TESTS_SUPPORT_SPAWN_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

// Starts `argv` (see helperCommand) with its standard output on `stdoutFd` when that is >= 0.
// Returns the pid, or -1 when fork failed.
pid_t spawnProcess(const std::vector<std::string> &argv, int stdoutFd = -1);

// Waits for `pid` and returns its exit code, or 128 + signal number when it was killed.
int waitExitCode(pid_t pid);

}  // namespace testsupport

#endif
