// Plain references for the path-filter pattern language, for differential tests: the pattern
// becomes an anchored POSIX extended regular expression, so decisions come from an engine that
// shares no code with the library's matchers; and rebase as plain recursion.
#ifndef TELO_TESTS_SUPPORT_GLOB_REFERENCE_H
#define TELO_TESTS_SUPPORT_GLOB_REFERENCE_H

#include <regex.h>

#include <string>

namespace testsupport {

class GlobReference {
  public:
    // The pattern up to its first NUL: "?" [^/], "*" [^/]*, two or more stars .*, "\c" the
    // byte c; a lone "\" at the end matches nothing.
    explicit GlobReference(const std::string &pattern);
    ~GlobReference();
    GlobReference(const GlobReference &) = delete;
    GlobReference &operator=(const GlobReference &) = delete;

    // Whether the pattern matches all of `path` up to its first NUL byte.
    bool matches(const std::string &path) const;

  private:
    bool never_ = false;
    regex_t regex_;
};

// The path filter's rebase, each single star trying every place in turn by recursion: the
// same result codes and remainder, in time exponential in the number of single stars, so for
// short inputs only. `out` changes only when the result is 1.
int rebaseReference(const char *pattern, const char *prefix, std::string &out);

}  // namespace testsupport

#endif
