// Looking at another process by pid through /proc, and signalling it only while it still runs
// the expected command (a pid recorded earlier may by now belong to an unrelated program).
//
// Every call is synchronous on the caller's thread, stateless and takes no lock. Failures are
// logged to the system log as "(pid) [err] proc/proc_util:line ...", except where said.
#ifndef TELOBACKUP_PROC_PROC_UTIL_H
#define TELOBACKUP_PROC_PROC_UTIL_H

#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT Process {
  public:
    // False only when kill(pid, 0) fails with ESRCH; true otherwise, including EPERM (the
    // process exists but belongs to someone else) and zombies. errno is unchanged. Logs nothing.
    static bool isAlive(int pid);

    // Whether the check could be made; `matched` is true when `pid` is alive and its kernel
    // command name (at most 15 characters) is a prefix of `name`:
    // an expected "abcdefghijklmnopqrstuvw" matches a kernel name "abcdefghijklmno", but an
    // expected "abc" never matches "abcdef". A dead pid is a successful check with no match.
    // False when the command of a live pid cannot be read, after logging
    // "getting process(pid)'s command failed" (and getProcCmd's own line).
    static bool isAlive(int pid, const std::string &name, bool &matched);

    // The scheduler state letter of "/proc/<pid>/stat" as a character code ('R', 'S', 'D',
    // 'Z', 'T', ...), read after the last ')' so that a command name holding ") " cannot fool
    // it; 0 when pid <= 0 or the file cannot be read. Logs nothing; errno may change.
    static int getStatus(int pid);

    // getStatus(pid) == 'Z'.
    static bool isZombie(int pid);

    // The command name from the "Name:" line of "/proc/<pid>/status" (its first blank-free
    // word) into `name`. False with `name` untouched after logging one of
    // "Error: invalid pid [pid]" (pid < 1), "Error: failed to open [path] %m",
    // "Error: no proc command is found [line]", "read fd failed" or
    // "Error: can't find proc command".
    static bool getProcCmd(int pid, std::string &name);

    // Logs "kill process [pid], signal: [sig]" at LOG_DEBUG, then true when kill(pid, sig)
    // succeeds (errno holds the failure otherwise). The target's name is not checked.
    static bool KillProc(int pid, int sig);

    // Sends `sig` to `pid` only when isAlive(pid, name, matched) finds it running `name`.
    // True when the signal was sent, and also when nothing was sent because the process is
    // gone or runs another command. False when the check failed (after logging
    // "failed to check proc info with pid: [pid] for signal: [sig]") or kill failed.
    static bool safeKillProc(int pid, const std::string &name, int sig);

    // getpid().
    static int getPid();
};

}  // namespace Backup
}  // namespace TELO

#endif
