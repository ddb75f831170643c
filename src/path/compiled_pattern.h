// Path-filter patterns compiled for fast decisions: the same answers as
// PathFilterPrivate::match() == 1, in time linear in the path length, without allocating.
//
// A pattern is split into a literal prefix, a literal suffix and a core. The core is cut at
// every run of stars ("**") into blocks; a block holds literals, "?" and single stars. As a run
// of stars matches anything, each block may take its earliest possible match, left to right,
// so no backtracking across blocks is needed. Inside a block the pieces between single stars
// are placed one by one where that is exact, else a bit-parallel automaton (block_automaton.h)
// follows all ways the single stars could match at once.
#ifndef TELO_SRC_PATH_COMPILED_PATTERN_H
#define TELO_SRC_PATH_COMPILED_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "path/block_automaton.h"
#include "path/pattern_token.h"

namespace TELO {
namespace Backup {
namespace internal {

// A path under test, with a summary of the two bytes that follow each of its slashes, made on
// first use and shared by all the patterns tested against it. Not for use from two threads at
// once.
class MatchSubject {
  public:
    // `data` must stay valid and must not hold a NUL byte in its first `size` bytes.
    MatchSubject(const char *data, size_t size) : data_(data), size_(size) {}
    const char *data() const { return data_; }
    size_t size() const { return size_; }

    // False when no "/" of the path is followed by the two bytes whose pairBit is `bit`.
    bool mayHaveAfterSlash(uint64_t bit) {
        if (!summarized_) summarize();
        return (pairs_ & bit) != 0;
    }

    // Bit of the two bytes `a` `b` in the summary.
    static uint64_t pairBit(unsigned char a, unsigned char b) {
        return uint64_t(1) << (((a * 7u) ^ b) & 63u);
    }

  private:
    void summarize();

    const char *data_;
    size_t size_;
    bool summarized_ = false;
    uint64_t pairs_ = 0;
};

// A fixed-length run of literals and "?" inside a block.
struct Piece {
    static constexpr size_t npos = std::string::npos;
    std::string bytes;         // "?" kept as a placeholder byte
    std::string any;           // 1 where the byte is a "?"
    bool literalOnly = true;   // no "?"
    size_t firstSlash = npos;  // offsets of its first and last literal "/"
    size_t lastSlash = npos;
    BlockAutomaton search;  // finds a piece with "?" and no "/"

    size_t size() const { return bytes.size(); }
    bool hasSlash() const { return firstSlash != npos; }
    bool at(const char *text, size_t position) const;
};

// A literal prefix or suffix, with one word of it ready for a first, cheap comparison.
class LiteralRun {
  public:
    void assign(const std::string &bytes, bool atEnd);
    const std::string &bytes() const { return bytes_; }
    // Whether the run stands at the start (prefix) or end (suffix) of text[0, size); `size` is
    // at least the run's length.
    bool matches(const char *text, size_t size) const {
        size_t n = bytes_.size();
        if (n == 0) return true;
        if (size < 8) return memcmp(text + (atEnd_ ? size - n : 0), bytes_.data(), n) == 0;
        uint64_t word;
        memcpy(&word, text + (atEnd_ ? (n < 8 ? size - 8 : size - n) : (n < 8 ? 0 : n - 8)), 8);
        return (word & mask_) == word_ && (n <= 8 || rest(text, size));
    }

  private:
    bool rest(const char *text, size_t size) const;  // the bytes beyond the word

    std::string bytes_;
    bool atEnd_ = false;
    uint64_t word_ = 0;  // the bytes compared as one word when the text has 8 bytes or more
    uint64_t mask_ = 0;
};

class CompiledPattern {
  public:
    // Compiles `pattern` up to its first NUL byte.
    explicit CompiledPattern(const char *pattern);

    bool matches(MatchSubject &subject) const {
        const char *text = subject.data();
        size_t size = subject.size();
        if (size < minLength_ || (kind_ == Kind::Exact && size != minLength_)) return false;
        if (!prefix_.matches(text, size) || !suffix_.matches(text, size)) return false;
        if (needlePair_ != 0 && !subject.mayHaveAfterSlash(needlePair_)) return false;
        return kind_ == Kind::Exact || kind_ == Kind::AnyCore || matchCore(subject);
    }

    // The last byte every matching path ends with, or -1 when the pattern ends in a wildcard.
    int lastByte() const;

  private:
    enum class Kind : uint8_t {
        Never,     // ends in a lone backslash
        Exact,     // literals only
        AnyCore,   // prefix ** suffix
        NoSlash,   // prefix * suffix
        Contains,  // prefix ** literal ** suffix
        General
    };
    // The text between two runs of stars: pieces joined by single stars. Mostly the pieces
    // can be placed one by one, each as early as it can go (a piece holding "/" against the
    // next "/", others where they next occur); else the automaton follows the block.
    struct Block {
        std::vector<Piece> pieces;
        bool placed = false;       // for the block's role (first, middle, last or only block)
        BlockAutomaton automaton;  // when not placed; reversed for the last block
    };

    // The four steps of compiling, in order; each returns whether a later one is needed.
    static bool tokenize(const char *pattern, std::vector<Token> &tokens);
    bool takeLiteralEnds(std::vector<Token> &tokens);
    bool classifyCore(const std::vector<Token> &core);
    void buildBlocks(const std::vector<Token> &core);

    bool matchCore(MatchSubject &subject) const;
    bool matchBlocks(const char *text, size_t lo, size_t hi) const;
    size_t firstBlockEnd(const Block &block, const char *text, size_t lo, size_t hi) const;
    bool lastBlockMatches(const Block &block, const char *text, size_t lo, size_t hi) const;
    bool onlyBlockMatches(const Block &block, const char *text, size_t lo, size_t hi) const;
    size_t middleBlockEnd(const Block &block, const char *text, size_t from, size_t limit) const;

    Kind kind_ = Kind::General;
    LiteralRun prefix_;
    LiteralRun suffix_;
    std::string needle_;       // Contains
    uint64_t needlePair_ = 0;  // Contains, for a needle "/xy...": pairBit of x, y
    size_t minLength_ = 0;
    std::vector<Block> blocks_;
};

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
