// Processes on a generic Linux server: the fork wrapper is fork itself.
#include <unistd.h>

#include "platform_error.h"
#include "telo/platform.h"

namespace {
constexpr char kPlatformFile[] = "src/process.cpp";
}  // namespace

extern "C" {

pid_t TLIBCProcFork(void) {
    pid_t pid = fork();
    if (pid < 0) TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
    return pid;
}

}  // extern "C"
