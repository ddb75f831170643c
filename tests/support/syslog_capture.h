// Captures the system-log lines of the code under test. The test binary interposes syslog,
// vsyslog, __syslog_chk and __vsyslog_chk, so nothing reaches the host's log; "%m" is expanded
// with the errno of the moment, as syslog would.
#ifndef TELO_TESTS_SUPPORT_SYSLOG_CAPTURE_H
#define TELO_TESTS_SUPPORT_SYSLOG_CAPTURE_H

#include <syslog.h>

#include <string>
#include <vector>

namespace testsupport {

struct LogLine {
    int priority;
    std::string text;
};

// Every line logged by this process since the last clear.
std::vector<LogLine> capturedLines();
void clearCapturedLines();

// Clears the captured lines when constructed; then answers questions about the new ones.
// `source` names the library file (its path under src/ without extension) that err() is about.
class SyslogCapture {
  public:
    explicit SyslogCapture(std::string source = "") : source_(std::move(source)) {
        clearCapturedLines();
    }
    std::vector<LogLine> lines() const { return capturedLines(); }
    // Lines at `priority` fitting `pattern`: "<pid>" stands for this process's id, "<line>" for
    // a source line number, "<any>" for any text; everything else is literal.
    int count(int priority, const std::string &pattern) const;
    bool has(int priority, const std::string &pattern) const {
        return count(priority, pattern) > 0;
    }
    // Error lines "(<pid>) [err] SOURCE:<line> MESSAGE", `message` a pattern as above.
    int err(const std::string &message) const {
        return count(LOG_ERR, "(<pid>) [err] " + source_ + ":<line> " + message);
    }
    size_t size() const { return capturedLines().size(); }
    // All captured lines, one per row, for failure messages.
    std::string dump() const;

  private:
    std::string source_;
};

}  // namespace testsupport

#endif
