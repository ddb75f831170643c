// The pattern file of `filter --from-file` on arbitrary bytes: a file that parses has one entry
// per pattern line and reads back the same when written out again, and its patterns compile
// and decide; a file that fails names a line that fails alone while the lines before it parse.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "pattern_file.h"
#include "telobackup/path/path_filter.h"

using telocli::PatternEntry;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

bool sameEntries(const std::vector<PatternEntry> &a, const std::vector<PatternEntry> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].kind != b[i].kind || a[i].pattern != b[i].pattern) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    std::vector<PatternEntry> entries;
    size_t badLine = 0;
    std::string error;
    if (telocli::parsePatterns(text, entries, badLine, error)) {
        size_t patternLines = 0;
        for (size_t start = 0; start < text.size();) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            if (end > start && text[start] != '#') ++patternLines;
            start = end + 1;
        }
        check(entries.size() == patternLines);
        static const char *const kKinds[] = {"prior", "include", "exclude"};
        std::string written = "# written back\n\n";
        TELO::Backup::PathFilter filter;
        for (const PatternEntry &entry : entries) {
            check(!entry.pattern.empty() && entry.pattern.find('\n') == std::string::npos);
            written += std::string(kKinds[entry.kind]) + "\t" + entry.pattern + "\n";
            if (entry.kind == PatternEntry::kPrior) filter.addPriorIncludePattern(entry.pattern);
            if (entry.kind == PatternEntry::kInclude) filter.addIncludePattern(entry.pattern);
            if (entry.kind == PatternEntry::kExclude) filter.addExcludePattern(entry.pattern);
        }
        std::vector<PatternEntry> again;
        check(telocli::parsePatterns(written, again, badLine, error) &&
              sameEntries(entries, again));
        for (const PatternEntry &entry : entries) {
            // A literal pattern decides its own text like an include or exclude says.
            filter.filterOut(entry.pattern);
            filter.filterOutIncludeException(entry.pattern);
        }
        return 0;
    }
    check(badLine >= 1 && !error.empty());
    size_t start = 0;
    for (size_t line = 1; line < badLine; ++line) start = text.find('\n', start) + 1;
    std::vector<PatternEntry> before;
    size_t unused;
    std::string ignored;
    check(telocli::parsePatterns(text.substr(0, start), before, unused, ignored));
    size_t end = text.find('\n', start);
    std::string bad = text.substr(start, end == std::string::npos ? end : end - start);
    check(!telocli::parsePatterns(bad, before, unused, ignored) && unused == 1 && ignored == error);
    return 0;
}
