// Bit-parallel automaton of a block of a compiled pattern: literals, "?" and single stars, no
// run of stars. Bit i of a state set stands for "the first i tokens have matched", so all the
// ways the stars could have matched so far are followed at once, one word operation per 64
// tokens and byte.
//
// Worked example, the block "a*b": tokens 0 'a', 1 '*', 2 'b'; states are bits 0 to 3 (written
// bit 3 first), and bit 3 is final.
//   accept['a'] = 0001   accept['b'] = 0100   (the tokens that take the byte; "?" takes all
//   star        = 0010                          but "/", other bytes share accept[other] = 0000)
//   start       = 0001   (nothing matched yet; a star as token 0 would add its skip, 0010)
// One step over byte c: next = (set & accept[c]) << 1, plus set & star unless c is "/" (a star
// takes c and stays), then every star reached may be skipped: next |= (next & star) << 1.
//   "a": (0001 & 0001) << 1 = 0010; set & star = 0000; skip 0010 -> 0100: set = 0110
//   "x": (0110 & 0000) << 1 = 0000; set & star = 0010; skip 0010 -> 0100: set = 0110
// From 0110, "b" gives 1000 | 0010 | 0100 = 1110, final bit set: "axb" matches; "/" gives 0000:
// the star cannot take it, so "a/b" is out as soon as the "/" is read.
#ifndef TELO_SRC_PATH_BLOCK_AUTOMATON_H
#define TELO_SRC_PATH_BLOCK_AUTOMATON_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "path/pattern_token.h"

namespace TELO {
namespace Backup {
namespace internal {

class BlockAutomaton {
  public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    // `tokens` are Literal, AnyByte and Star tokens, no two stars adjacent.
    void build(const std::vector<Token> &tokens);

    // Earliest end of a match that starts at `from` and ends at most at `limit`, or npos.
    size_t earliestEnd(const char *text, size_t from, size_t limit) const;
    // Earliest end of a match that starts anywhere in [from, limit], ending at most at `limit`.
    size_t searchEarliestEnd(const char *text, size_t from, size_t limit) const;
    // Whether the block matches text[from, end) exactly.
    bool matchesExactly(const char *text, size_t from, size_t end) const;
    // Built from the reversed tokens: latest start >= `lo` of a match ending at `end`, or npos.
    size_t latestStartReversed(const char *text, size_t lo, size_t end) const;

  private:
    template <bool kOneWord, bool kSearch>
    size_t forward(const char *text, size_t from, size_t limit, bool exact) const;
    template <bool kOneWord>
    size_t backward(const char *text, size_t lo, size_t end) const;

    unsigned words_ = 0;
    unsigned finalWord_ = 0;
    uint64_t finalBit_ = 0;
    uint8_t byteClass_[256] = {};   // 0: unnamed bytes, 1: "/", then each literal byte
    std::vector<uint64_t> accept_;  // [class * words_ + word]: tokens that consume the class
    std::vector<uint64_t> star_;    // [word]: single-star tokens
    std::vector<uint64_t> start_;   // [word]: the start state and what a star lets it skip
};

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
