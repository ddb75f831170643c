#include "telobackup/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "telobackup/path/path_util.h"

namespace {

// The stream, once opened, is kept for the life of the process and never closed.
FILE *logStream = nullptr;

FILE *acquireLogStream() {
    if (logStream != nullptr) return logStream;
    std::string path = TELO::Backup::Path::getLogPath();
    if (path == "stderr") {
        logStream = stderr;
    } else if (!path.empty()) {
        logStream = fopen64(path.c_str(), "a+e");
    }
    return logStream;
}

// Flushes the stream and forces it to storage. A stream that cannot be synced (a terminal, a
// pipe, a device) is no failure; a failed flush or sync of a file is (-1 with errno).
int syncStream(FILE *stream) {
    if (fflush(stream) != 0) return -1;
    int fd = fileno(stream);
    if (fdatasync(fd) == 0) return 0;
    if (errno == EOPNOTSUPP && fsync(fd) == 0) return 0;
    return errno == EINVAL || errno == EROFS || errno == EOPNOTSUPP ? 0 : -1;
}

// Writes one timestamped line; 0, or -1 with errno when a write, the flush or the sync failed.
int writeLine(FILE *stream, const char *format, va_list ap) {
    clearerr(stream);
    time_t now = time(nullptr);
    struct tm local = {};
    if (localtime_r(&now, &local) != nullptr) {
        char prefix[32] = {};
        size_t length = strftime(prefix, sizeof(prefix), "%Y-%m-%dT%H:%M:%S ", &local);
        fwrite(prefix, 1, length, stream);
    }
    vfprintf(stream, format, ap);
    fputc('\n', stream);
    if (ferror(stream)) {
        int saved = errno != 0 ? errno : EIO;
        fflush(stream);  // drops what the failed write left in the buffer
        clearerr(stream);
        errno = saved;
        return -1;
    }
    return syncStream(stream);
}

}  // namespace

extern "C" {

void vfilelog(int /*level*/, const char *format, va_list ap) {
    if (format == nullptr) return;
    FILE *stream = acquireLogStream();
    if (stream == nullptr) return;
    writeLine(stream, format, ap);
}

int filelogChecked(int /*level*/, const char *format, ...) {
    if (format == nullptr) {
        errno = EINVAL;
        return -1;
    }
    errno = 0;
    FILE *stream = acquireLogStream();
    if (stream == nullptr) {
        int saved = errno;
        if (TELO::Backup::Path::getLogPath().empty()) return 0;  // turned off
        errno = saved != 0 ? saved : ENOENT;
        return -1;
    }
    va_list ap;
    va_start(ap, format);
    int result = writeLine(stream, format, ap);
    va_end(ap);
    return result;
}

void filelog(int level, const char *format, ...) {
    if (format == nullptr || acquireLogStream() == nullptr) return;
    va_list ap;
    va_start(ap, format);
    vfilelog(level, format, ap);
    va_end(ap);
}

}  // extern "C"
