#include "telobackup/proc/proc_util.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "internal/unique_owners.h"

namespace TELO {
namespace Backup {

using internal::ErrnoSaver;
using internal::retryOnEintr;
using internal::UniqueFd;
using internal::UniqueFile;
using internal::UniqueMalloc;

namespace {

constexpr char kLogSource[] = "proc/proc_util";

// Room for /proc/<pid>/stat: the command name is short (the kernel cuts it) and the state letter
// follows it, so it always fits. Not an interface limit.
constexpr size_t kStatBufferSize = 4096;

// Room for "/proc/<pid>/status"; any pid fits many times over. Not an interface limit.
constexpr size_t kProcPathSize = 4095;

// The line of /proc/<pid>/status that holds the command name, and room for the name: the
// "%127s" below reads at most 127 characters of it (the kernel's names are much shorter).
constexpr char kNameKey[] = "Name:";
constexpr size_t kNameBufferSize = 128;

}  // namespace

bool Process::isAlive(int pid) {
    ErrnoSaver keep;
    return !(kill(pid, 0) != 0 && errno == ESRCH);
}

int Process::getStatus(int pid) {
    if (pid <= 0) return 0;
    char buffer[kStatBufferSize];
    snprintf(buffer, sizeof(buffer), "/proc/%d/stat", pid);
    UniqueFd fd(retryOnEintr([&] { return open(buffer, O_RDONLY | O_CLOEXEC); }));
    if (!fd) return 0;
    ssize_t n = retryOnEintr([&] { return read(fd.get(), buffer, sizeof(buffer) - 1); });
    if (n < 0) return 0;
    buffer[n] = '\0';
    // The command name is parenthesised and may itself hold ')' and blanks.
    const char *close = strrchr(buffer, ')');
    if (close == nullptr) return 0;
    if (close[1] == '\0') return 0;
    return static_cast<unsigned char>(close[2]);
}

bool Process::isZombie(int pid) {
    return getStatus(pid) == 'Z';
}

bool Process::getProcCmd(int pid, std::string &name) {
    if (pid < 1) {
        TELO_LOG_ERR("Error: invalid pid [%d]", pid);
        return false;
    }
    char path[kProcPathSize];
    snprintf(path, sizeof(path), "/proc/%d/status", pid);
    UniqueFile stream(fopen(path, "re"));
    if (!stream) {
        TELO_LOG_ERR("Error: failed to open [%s] %m", path);
        return false;
    }
    char *line = nullptr;  // getline's buffer, which it may move as it grows: freed below
    size_t capacity = 0;
    char found[kNameBufferSize] = {};
    bool ok = true;
    while (getline(&line, &capacity, stream.get()) != -1) {
        if (strncmp(line, kNameKey, sizeof(kNameKey) - 1) != 0) continue;
        if (sscanf(line, "Name:\t%127s", found) != 1) {
            TELO_LOG_ERR("Error: no proc command is found [%s]", line);
            ok = false;
        }
        break;
    }
    UniqueMalloc<char> lineOwner(line);
    if (ok && ferror(stream.get())) {
        TELO_LOG_ERR("read fd failed");
        ok = false;
    } else if (ok && found[0] == '\0') {
        TELO_LOG_ERR("Error: can't find proc command");
        ok = false;
    }
    if (ok) name = found;
    return ok;
}

bool Process::isAlive(int pid, const std::string &name, bool &matched) {
    matched = false;
    if (!isAlive(pid)) return true;
    std::string cmd;
    if (!getProcCmd(pid, cmd)) {
        TELO_LOG_ERR("getting process(%d)'s command failed", pid);
        return false;
    }
    // A prefix test: the kernel cuts command names to 15 characters.
    matched = name.compare(0, cmd.length(), cmd) == 0;
    return true;
}

bool Process::KillProc(int pid, int sig) {
    TELO_LOG_DEBUG("kill process [%u], signal: [%d]", static_cast<unsigned>(pid), sig);
    return kill(pid, sig) == 0;
}

bool Process::safeKillProc(int pid, const std::string &name, int sig) {
    bool matched = false;
    if (!isAlive(pid, name, matched)) {
        TELO_LOG_ERR("failed to check proc info with pid: [%d] for signal: [%d]", pid, sig);
        return false;
    }
    if (matched) return KillProc(pid, sig);
    return true;
}

int Process::getPid() {
    return getpid();
}

}  // namespace Backup
}  // namespace TELO
