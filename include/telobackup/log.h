/*
 * The application log file of the host programs (the library itself never writes to it).
 *
 * Every call is synchronous on the caller's thread and takes no lock: two threads logging at
 * once may interleave their lines, so callers that log from several threads serialise.
 *
 * The file is chosen on the first call that can open one: the value of TELO_LOGFILE if set
 * ("stderr" means the standard error stream, "" turns the log off), else "Quarnix.log" beside
 * the running executable. It is opened for appending and kept for the life of the process;
 * changing TELO_LOGFILE later has no effect.
 */
#ifndef TELOBACKUP_LOG_H
#define TELOBACKUP_LOG_H

#include <stdarg.h>

#include "telobackup/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Appends one line "YYYY-MM-DDTHH:MM:SS <message>\n" (local time) to the application log and
 * forces it to storage before returning. `level` is ignored: every line is written. The format
 * must not end in a newline. A null format, no log path or an unopenable file writes nothing;
 * nothing is reported, logged or thrown, and the next call tries to open the file again.
 * errno may be changed. */
TELO_EXPORT void filelog(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* As filelog, and tells whether the line reached the log: 0 when it was written and flushed
 * (or the log is turned off by an empty TELO_LOGFILE), -1 with errno when the file could not
 * be opened or a write, the flush or the sync to storage failed. A log that cannot be synced
 * (standard error on a terminal or pipe) is no failure. Nothing is logged or thrown. */
TELO_EXPORT int filelogChecked(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* filelog with a va_list. */
TELO_EXPORT void vfilelog(int level, const char *format, va_list ap)
    __attribute__((format(printf, 2, 0)));

#ifdef __cplusplus
}
#endif

#endif
