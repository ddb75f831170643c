// The private part of PathFilter: the three pattern lists, their compiled forms, and the
// reference matcher that defines what a pattern means.
//
// Speed-ups only, which could be deleted without changing an answer: the compiled patterns
// (compiled_pattern.h, block_automaton.h) and the last-byte candidate table of PatternList;
// filterOut could call match() on each stored pattern instead.
#ifndef TELO_SRC_PATH_PATH_FILTER_PRIVATE_H
#define TELO_SRC_PATH_PATH_FILTER_PRIVATE_H

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "path/compiled_pattern.h"

namespace TELO {
namespace Backup {
namespace internal {

// One list of patterns as given, beside the compiled form the decisions run on. A path is
// tried only against the patterns that can end with its last byte.
class PatternList {
  public:
    const std::list<std::string> &patterns() const { return patterns_; }
    void add(const std::string &pattern);
    // std::list::merge of `more` into the list, compiling what comes in.
    void merge(std::list<std::string> &more);
    void clear();
    bool anyMatches(MatchSubject &subject) const;
    bool empty() const { return patterns_.empty(); }

  private:
    void reserve(size_t more);
    // Marks compiled pattern `i` as a candidate for paths ending with `lastByte` (-1: any byte).
    void mark(size_t i, int lastByte);

    std::list<std::string> patterns_;
    std::vector<CompiledPattern> compiled_;
    // For each byte, a bit per compiled pattern that a path ending with that byte may match.
    std::vector<uint64_t> byLastByte_;
    size_t words_ = 0;
};

}  // namespace internal

class PathFilterPrivate {
  public:
    internal::PatternList include_;
    internal::PatternList exclude_;
    internal::PatternList priorInclude_;

    // Wildcard match of the whole `path`: 1 match; 0 no match; -1 the path ran out before the
    // pattern did (no star to the left can help either); -2 a single star would have to cross
    // a "/". Only 1 is a match. Both strings must be NUL-terminated. Recursion depth grows with
    // the number of stars in the pattern. Also the reference the tests, the fuzzer and the
    // benchmark hold the compiled patterns to.
    static int match(const char *pattern, const char *path);

    // Walks `pattern` along the directory `prefix`; when the prefix is used up, sets `out` to
    // the part of the pattern that applies below it and returns 1. 0 when the pattern cannot
    // apply below the prefix; -2 when a single star would have to cross a "/" of the prefix.
    // `out` changes only when the result is 1.
    static int rebase(const char *pattern, const char *prefix, std::string &out);

    // The get...Pattern rule for one list.
    static void rebaseList(const std::list<std::string> &patterns, std::list<std::string> &out,
                           const std::string &prefix);
};

}  // namespace Backup
}  // namespace TELO

#endif
