#include "pattern_file.h"

namespace telocli {

bool parsePatterns(const std::string &text, std::vector<PatternEntry> &entries, size_t &badLine,
                   std::string &error) {
    entries.clear();
    size_t start = 0, number = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        ++number;
        size_t length = end - start;
        size_t begin = start;
        start = end + 1;
        if (length == 0 || text[begin] == '#') continue;
        size_t tab = text.find('\t', begin);
        if (tab == std::string::npos || tab + 1 >= end) {
            badLine = number;
            error = "expected KIND<TAB>PATTERN";
            return false;
        }
        std::string kind = text.substr(begin, tab - begin);
        PatternEntry entry;
        if (kind == "prior") {
            entry.kind = PatternEntry::kPrior;
        } else if (kind == "include") {
            entry.kind = PatternEntry::kInclude;
        } else if (kind == "exclude") {
            entry.kind = PatternEntry::kExclude;
        } else {
            badLine = number;
            error = "unknown kind '" + kind + "' (prior, include or exclude)";
            return false;
        }
        entry.pattern = text.substr(tab + 1, end - tab - 1);
        entries.push_back(std::move(entry));
    }
    return true;
}

}  // namespace telocli
