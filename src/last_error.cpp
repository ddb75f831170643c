#include "telobackup/last_error.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "internal/errno_saver.h"
#include "internal/syslog.h"

namespace TELO {
namespace Backup {

namespace {

// Trivially destructible, so a line logged from a late exit handler still has somewhere to go.
constexpr int kRecordSize = 1024;
thread_local char lastLine[kRecordSize];

}  // namespace

std::string lastErrorText() {
    return std::string(lastLine);
}

void clearLastErrorText() {
    lastLine[0] = '\0';
}

namespace internal {

void logLine(int priority, const char *format, ...) {
    ErrnoSaver keep;  // the caller's errno, for "%m" and afterwards
    va_list ap;
    va_start(ap, format);
    if (LOG_PRI(priority) != LOG_ERR) {
        vsyslog(priority, format, ap);
    } else {
        // The line is formatted once, here, and the logger copies it: the record costs a copy.
        va_list again;
        va_copy(again, ap);
        int length = vsnprintf(lastLine, sizeof(lastLine), format, ap);
        errno = keep.value();
        if (length < 0) {
            lastLine[0] = '\0';
            vsyslog(priority, format, again);
        } else if (length < kRecordSize) {
            syslog(priority, "%s", lastLine);
        } else {
            vsyslog(priority, format, again);  // the record keeps the first bytes, the log all
        }
        va_end(again);
    }
    va_end(ap);
}

}  // namespace internal

}  // namespace Backup
}  // namespace TELO
