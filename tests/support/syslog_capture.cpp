#include "support/syslog_capture.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <regex>

namespace testsupport {

namespace {

// A child forked while another thread logs must not inherit a held lock.
std::mutex &linesMutex() {
    static std::mutex *mutex = [] {
        auto *m = new std::mutex;
        pthread_atfork([] { linesMutex().lock(); }, [] { linesMutex().unlock(); },
                       [] { linesMutex().unlock(); });
        return m;
    }();
    return *mutex;
}

std::vector<LogLine> &lineStore() {
    static auto *lines = new std::vector<LogLine>;
    return *lines;
}

void record(int priority, const char *format, va_list ap) {
    int savedErrno = errno;
    // "%m" becomes the text of errno (which holds no '%'), as syslog would have it.
    std::string error = strerror(savedErrno), expanded;
    for (const char *p = format; *p != '\0'; ++p) {
        if (p[0] == '%' && (p[1] == 'm' || p[1] == '%')) {
            expanded += *++p == 'm' ? error : "%%";
        } else {
            expanded += *p;
        }
    }
    char *text = nullptr;
    if (vasprintf(&text, expanded.c_str(), ap) >= 0) {
        std::lock_guard<std::mutex> lock(linesMutex());
        lineStore().push_back({LOG_PRI(priority), text});
    }
    free(text);
    errno = savedErrno;
}

// The regular expression of a pattern (see SyslogCapture::count).
std::regex regexFromPattern(const std::string &pattern) {
    std::string out = std::regex_replace(pattern, std::regex(R"([\\^$.|?*+()\[\]{}])"), "\\$&");
    out = std::regex_replace(out, std::regex("<pid>"), std::to_string(getpid()));
    out = std::regex_replace(out, std::regex("<line>"), "[0-9]+");
    return std::regex(std::regex_replace(out, std::regex("<any>"), "[\\s\\S]*"));
}

}  // namespace

std::vector<LogLine> capturedLines() {
    std::lock_guard<std::mutex> lock(linesMutex());
    return lineStore();
}

void clearCapturedLines() {
    std::lock_guard<std::mutex> lock(linesMutex());
    lineStore().clear();
}

int SyslogCapture::count(int priority, const std::string &pattern) const {
    std::regex re = regexFromPattern(pattern);
    int n = 0;
    for (const LogLine &line : capturedLines()) {
        if (line.priority == priority && std::regex_match(line.text, re)) ++n;
    }
    return n;
}

std::string SyslogCapture::dump() const {
    std::string out;
    for (const LogLine &line : capturedLines()) {
        out += "<" + std::to_string(line.priority) + "> " + line.text + "\n";
    }
    return out.empty() ? "(no lines)\n" : out;
}

}  // namespace testsupport

// Interposed libc entry points.
extern "C" {

void syslog(int priority, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    testsupport::record(priority, format, ap);
    va_end(ap);
}

void vsyslog(int priority, const char *format, va_list ap) {
    testsupport::record(priority, format, ap);
}

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    testsupport::record(priority, format, ap);
    va_end(ap);
}

void __vsyslog_chk(int priority, int, const char *format, va_list ap) {
    testsupport::record(priority, format, ap);
}

}  // extern "C"
