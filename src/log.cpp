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

void syncStream(FILE *stream) {
    fflush(stream);
    int fd = fileno(stream);
    if (fdatasync(fd) != 0 && errno == EOPNOTSUPP) fsync(fd);
}

}  // namespace

extern "C" {

void vfilelog(int /*level*/, const char *format, va_list ap) {
    if (format == nullptr) return;
    FILE *stream = acquireLogStream();
    if (stream == nullptr) return;

    time_t now = time(nullptr);
    struct tm local = {};
    if (localtime_r(&now, &local) != nullptr) {
        char prefix[32] = {};
        size_t length = strftime(prefix, sizeof(prefix), "%Y-%m-%dT%H:%M:%S ", &local);
        fwrite(prefix, 1, length, stream);
    }
    vfprintf(stream, format, ap);
    fputc('\n', stream);
    syncStream(stream);
}

void filelog(int level, const char *format, ...) {
    if (format == nullptr || acquireLogStream() == nullptr) return;
    va_list ap;
    va_start(ap, format);
    vfilelog(level, format, ap);
    va_end(ap);
}

}  // extern "C"
