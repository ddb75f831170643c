// The pattern file of `filter --from-file`: one pattern a line as "KIND<TAB>PATTERN", KIND being
// prior, include or exclude; blank lines and lines starting with "#" are skipped. The pattern is
// every byte after the first tab, other tabs and a carriage return included.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_PATTERN_FILE_H
#define TELO_TOOLS_TELOBACKUP_UTIL_PATTERN_FILE_H

#include <cstddef>
#include <string>
#include <vector>

namespace telocli {

struct PatternEntry {
    enum Kind { kPrior, kInclude, kExclude };
    Kind kind;
    std::string pattern;
};

// Parses the whole text of a pattern file. True with `entries` in file order; false with the
// number of the first bad line (from 1) in `badLine` and what is wrong with it in `error`
// ("expected KIND<TAB>PATTERN", "unknown kind 'X' (prior, include or exclude)"). Throws
// nothing but std::bad_alloc.
bool parsePatterns(const std::string &text, std::vector<PatternEntry> &entries, size_t &badLine,
                   std::string &error);

}  // namespace telocli

#endif
