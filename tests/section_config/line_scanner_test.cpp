// The rewrite's fast path against the line grammar: a line copied as it is must be exactly what
// classifying it and writing it back would give, and every line that would come out the same
// must take the fast path. Checked for every line of up to five bytes over the bytes that
// matter to the grammar.
#include "section_config/line_scanner.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "section_config/rewrite.h"

using TELO::Backup::SectionConfig;
using namespace TELO::Backup::internal;

namespace {

// The line as a rewrite writes it back after classifying it, "\n" included.
std::string normalised(const SectionConfig::LineInfo &info) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    if (stream == nullptr) return "<open_memstream failed>";
    if (info.type == SectionConfig::LINE_SECTION) {
        putSectionName(stream, info.section);
    } else if (info.type == SectionConfig::LINE_KEY_VALUE) {
        putKeyValue(stream, info.key, info.value);
    } else {
        putText(stream, info.line);
    }
    fclose(stream);
    std::string written(text, size);
    free(text);
    return written;
}

void checkOne(const std::string &raw) {
    SCOPED_TRACE(::testing::PrintToString(raw));
    int type = -1;
    bool verbatim = verbatimLineKind(raw.data(), raw.size(), true, type);
    std::string copy = raw + '\0';  // room for the terminator classifyLine writes
    SectionConfig::LineInfo info;
    classifyLine(&copy[0], raw.size(), true, info);
    EXPECT_EQ(normalised(info) == raw + "\n", verbatim);
    if (verbatim) {
        EXPECT_EQ(info.type, type);
    }
    // Without a NUL in the input, the check that skips searching for one agrees.
    if (raw.find('\0') == std::string::npos) {
        int unsearched = -1;
        EXPECT_EQ(verbatim, verbatimLineKind(raw.data(), raw.size(), false, unsearched));
        if (verbatim) {
            EXPECT_EQ(type, unsearched);
        }
    }
}

}  // namespace

TEST(LineScanner, FastPathAgreesWithTheGrammar) {
    const std::string alphabet(" \t\rk=#[]\0", 9);
    std::string line;
    for (size_t length = 0; length <= 5; ++length) {
        std::vector<size_t> digits(length, 0);
        for (;;) {
            line.resize(length);
            for (size_t i = 0; i < length; ++i) line[i] = alphabet[digits[i]];
            checkOne(line);
            if (::testing::Test::HasFailure()) return;  // one counterexample says enough
            size_t i = 0;
            while (i < length && ++digits[i] == alphabet.size()) digits[i++] = 0;
            if (i == length) break;
        }
    }
}
