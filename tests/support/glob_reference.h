// A plain reference for the path-filter pattern language, for differential tests: each pattern
// becomes an anchored POSIX extended regular expression, so the decisions come from an engine
// that shares no code with the library's matchers.
#ifndef TELO_TESTS_SUPPORT_GLOB_REFERENCE_H
#define TELO_TESTS_SUPPORT_GLOB_REFERENCE_H

#include <regex.h>

#include <string>

namespace testsupport {

class GlobReference {
  public:
    // Translates `pattern` up to its first NUL byte: "?" [^/], "*" [^/]*, two or more stars .*,
    // "\c" the byte c; a trailing lone "\" matches nothing.
    explicit GlobReference(const std::string &pattern);
    ~GlobReference();
    GlobReference(const GlobReference &) = delete;
    GlobReference &operator=(const GlobReference &) = delete;

    // Whether the pattern matches all of `path` up to its first NUL byte.
    bool matches(const std::string &path) const;
    const std::string &expression() const { return expression_; }

  private:
    std::string expression_;
    bool never_ = false;
    bool compiled_ = false;
    regex_t regex_;
};

}  // namespace testsupport

#endif
