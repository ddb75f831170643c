/*
 * The application log file of the host programs (the library itself never writes to it).
 *
 * Every call is synchronous on the caller's thread; only the first open takes a lock. Each line
 * is written whole with one write(2) on a descriptor opened for appending, so the lines of two
 * threads, or of two processes sharing the file, never run into each other.
 *
 * What is durable per line: when a call returns, its line has been forced to storage with
 * fdatasync (fsync where that is not supported); standard error on a terminal or pipe is
 * written but cannot be synced. A crash during a call may lose or cut that one line, never
 * an earlier one.
 *
 * The file is chosen on the first call that can open one: the value of TELO_LOGFILE if set
 * ("stderr" means the standard error stream, "" turns the log off), else "Quarnix.log" beside
 * the running executable. It is opened for appending and kept for the life of the process
 * (reopened by filelogReopen() only); changing TELO_LOGFILE later has no effect.
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

/* Reopens the application log at the path it was first opened from, for log rotation: after
 * logrotate has renamed the file, the next line goes to a new file of that name instead of the
 * renamed one. Lines written meanwhile by other threads land whole in the old file or the new.
 * Returns 0, also when nothing is open yet (the next line opens the file) or the log is
 * standard error; -1 with errno when the file cannot be opened (ENOENT when its directory went
 * away, EACCES), and the old file is then kept. Nothing is logged.
 * Async-signal-safe (open, dup3, close): it may be called from a SIGHUP handler, which should
 * save and restore errno around it as around any call.
 *     static void onHangup(int) { int saved = errno; filelogReopen(); errno = saved; }
 *     signal(SIGHUP, onHangup);      // logrotate: postrotate  kill -HUP $(cat /run/app.pid)
 */
TELO_EXPORT int filelogReopen(void);

/* filelog with a va_list. */
TELO_EXPORT void vfilelog(int level, const char *format, va_list ap)
    __attribute__((format(printf, 2, 0)));

#ifdef __cplusplus
}
#endif

#endif
