// The library's one way to write a diagnostic line to the system log.
//
// Each source file defines, before including this header or at least before the first use,
//     static constexpr char kLogSource[] = "path/path_util";
// its path relative to src/ without extension. The macros prepend the fixed prefixes and leave
// "%m" to syslog, so errno must still hold the failure when they run; every macro keeps errno, so
// a caller may log and then return with the failure's errno.
#ifndef TELO_SRC_INTERNAL_SYSLOG_H
#define TELO_SRC_INTERNAL_SYSLOG_H

#include <syslog.h>
#include <unistd.h>

#include "telo/platform.h"

namespace TELO {
namespace Backup {
namespace internal {

// Writes one line to the system log as syslog(priority, format, ...) would, and keeps a line at
// LOG_ERR as the calling thread's last error text (see telobackup/last_error.h). errno is kept,
// and "%m" reads it as syslog would.
void logLine(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

// "(pid) [err] source:line message" at LOG_ERR, kept as the thread's last error text.
#define TELO_LOG_ERR(fmt, ...)                                                                  \
    ::TELO::Backup::internal::logLine(LOG_ERR, "(%d) [err] %s:%d " fmt, ::getpid(), kLogSource, \
                                      __LINE__, ##__VA_ARGS__)

// "(pid) [debug] source:line message" at LOG_DEBUG.
#define TELO_LOG_DEBUG(fmt, ...)                                                                    \
    ::TELO::Backup::internal::logLine(LOG_DEBUG, "(%d) [debug] %s:%d " fmt, ::getpid(), kLogSource, \
                                      __LINE__, ##__VA_ARGS__)

// The same two lines on behalf of another process: a child that must not log itself has its
// lines written by its parent under the child's pid.
#define TELO_LOG_ERR_AS(pid, fmt, ...)                                                         \
    ::TELO::Backup::internal::logLine(LOG_ERR, "(%d) [err] %s:%d " fmt, static_cast<int>(pid), \
                                      kLogSource, __LINE__, ##__VA_ARGS__)
#define TELO_LOG_DEBUG_AS(pid, fmt, ...)                                                         \
    ::TELO::Backup::internal::logLine(LOG_DEBUG, "(%d) [debug] %s:%d " fmt, static_cast<int>(pid), \
                                      kLogSource, __LINE__, ##__VA_ARGS__)

// The short form "source:line message", at the given priority.
#define TELO_LOG_SHORT(priority, fmt, ...) \
    ::TELO::Backup::internal::logLine((priority), "%s:%d " fmt, kLogSource, __LINE__, ##__VA_ARGS__)

// The platform-error suffix and its three arguments, for messages about platform calls:
//     TELO_LOG_ERR("lookup[%s] failed: " TELO_PLATFORM_ERR_FMT, host, TELO_PLATFORM_ERR_ARGS);
#define TELO_PLATFORM_ERR_FMT "[0x%04X %s:%d]"
#define TELO_PLATFORM_ERR_ARGS ::TLIBCErrGet(), ::TLIBCErrorGetFile(), ::TLIBCErrorGetLine()

#endif
