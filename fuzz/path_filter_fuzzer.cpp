// Path-filter patterns on arbitrary bytes: the compiled matcher, a filter holding the pattern,
// match() and a regular-expression reference decide alike, rebase() agrees with plain recursion,
// and neither match() nor rebase() reads past the end of its inputs (each input lives in a heap
// block of exactly its size, so ASan sees any overread).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "path/path_filter_private.h"
#include "support/glob_reference.h"
#include "telobackup/path/path_filter.h"

using TELO::Backup::PathFilterPrivate;
using TELO::Backup::internal::CompiledPattern;
using TELO::Backup::internal::MatchSubject;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

// A heap copy of `text` with its terminator and nothing after it.
std::unique_ptr<char[]> exactCopy(const std::string &text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

bool endsWith(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    size_t cut = input.find('\n');
    std::string pattern = input.substr(0, cut);
    std::string path = cut == std::string::npos ? std::string() : input.substr(cut + 1);
    pattern.resize(strlen(pattern.c_str()));
    path.resize(strlen(path.c_str()));

    auto patternCopy = exactCopy(pattern);
    auto pathCopy = exactCopy(path);
    bool byMatch = PathFilterPrivate::match(patternCopy.get(), pathCopy.get()) == 1;

    // The compiled matcher sees the path without a terminator.
    std::unique_ptr<char[]> bare(new char[path.size()]);
    memcpy(bare.get(), path.data(), path.size());
    MatchSubject subject(bare.get(), path.size());
    check(CompiledPattern(pattern.c_str()).matches(subject) == byMatch);

    // Through a filter, whose candidate table by last byte must not hide the pattern.
    TELO::Backup::PathFilter excluding, including;
    excluding.addExcludePattern(pattern);
    including.addIncludePattern(pattern);
    check(excluding.filterOut(path) == byMatch);
    check(including.filterOutIncludeException(path) == !byMatch);

    // glibc's regex engine gets slow on long inputs; short ones cover the language.
    if (pattern.size() <= 256 && path.size() <= 1024) {
        check(testsupport::GlobReference(pattern).matches(path) == byMatch);
    }

    // The path as a prefix: the remainder is a tail of the pattern, "*", or "/" and a tail
    // that starts with a run of stars; with few stars, exactly what plain recursion gives.
    std::string rest = "unchanged";
    int result = PathFilterPrivate::rebase(patternCopy.get(), pathCopy.get(), rest);
    check(result == 1 || result == 0 || result == -2);
    if (result == 1) {
        check(rest.empty() || rest == "*" || endsWith(pattern, rest) ||
              (rest.compare(0, 3, "/**") == 0 && endsWith(pattern, rest.substr(1))));
    } else {
        check(rest == "unchanged");
    }
    if (std::count(pattern.begin(), pattern.end(), '*') <= 6 && path.size() <= 64) {
        std::string expected = "unchanged";
        check(testsupport::rebaseReference(pattern.c_str(), path.c_str(), expected) == result &&
              expected == rest);
    }
    return 0;
}
