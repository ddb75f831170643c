#include "path/block_automaton.h"

#include <cstring>

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// Blocks of more words than this run on a per-thread buffer instead of the stack.
constexpr unsigned kStackWords = 8;

// The state set of a multi-word run.
class StateBuffer {
  public:
    explicit StateBuffer(unsigned words) : set(stack_) {
        if (words > kStackWords) {
            static thread_local std::vector<uint64_t> heap;
            if (heap.size() < words) heap.resize(words);
            set = heap.data();
        }
    }
    uint64_t *set;

  private:
    uint64_t stack_[kStackWords];
};

// One byte of input for a one-word automaton: tokens that consume the byte advance, single
// stars keep their state on any byte but "/", then every star may be skipped.
inline uint64_t stepOne(uint64_t set, uint64_t accept, uint64_t star, bool slash) {
    uint64_t next = (set & accept) << 1;
    if (!slash) next |= set & star;
    return next | ((next & star) << 1);
}

// The same over `words` words, in place, in one pass: the carries take the bits that move
// from one word to the next (a star is never the first bit reached by a skip, as stars are
// never adjacent). `inject` (may be null) is or-ed in. Returns whether any state is left.
inline bool stepWords(uint64_t *set, const uint64_t *accept, const uint64_t *star,
                      const uint64_t *inject, unsigned words, bool slash) {
    uint64_t moveCarry = 0, skipCarry = 0, any = 0;
    uint64_t keep = slash ? 0 : ~uint64_t(0);
    for (unsigned w = 0; w < words; ++w) {
        uint64_t old = set[w];
        uint64_t moved = old & accept[w];
        uint64_t next = (moved << 1) | moveCarry | (old & star[w] & keep);
        moveCarry = moved >> 63;
        uint64_t skipped = next & star[w];
        next |= (skipped << 1) | skipCarry;
        skipCarry = skipped >> 63;
        if (inject != nullptr) next |= inject[w];
        set[w] = next;
        any |= next;
    }
    return any != 0;
}

}  // namespace

void BlockAutomaton::build(const std::vector<Token> &tokens) {
    unsigned states = static_cast<unsigned>(tokens.size()) + 1;
    words_ = (states + 63) / 64;
    bool named[256] = {};
    unsigned classes = 2;
    memset(byteClass_, 0, sizeof(byteClass_));
    byteClass_[static_cast<unsigned char>('/')] = 1;
    named[static_cast<unsigned char>('/')] = true;
    for (const Token &t : tokens) {
        if (t.kind == TokenKind::Literal && !named[t.byte]) {
            named[t.byte] = true;
            byteClass_[t.byte] = static_cast<uint8_t>(classes++);
        }
    }
    accept_.assign(size_t(classes) * words_, 0);
    star_.assign(words_, 0);
    start_.assign(words_, 0);
    for (unsigned i = 0; i < tokens.size(); ++i) {
        uint64_t bit = uint64_t(1) << (i % 64);
        unsigned word = i / 64;
        switch (tokens[i].kind) {
            case TokenKind::Literal:
                accept_[byteClass_[tokens[i].byte] * words_ + word] |= bit;
                break;
            case TokenKind::AnyByte:
                for (unsigned c = 0; c < classes; ++c) {
                    if (c != 1) accept_[c * words_ + word] |= bit;
                }
                break;
            case TokenKind::Star:
                star_[word] |= bit;
                break;
            default:  // no other kind reaches a block
                break;
        }
    }
    start_[0] = 1;
    if (!tokens.empty() && tokens[0].kind == TokenKind::Star) start_[0] |= 2;
    finalWord_ = (states - 1) / 64;
    finalBit_ = uint64_t(1) << ((states - 1) % 64);
}

template <bool kOneWord, bool kSearch>
size_t BlockAutomaton::forward(const char *text, size_t from, size_t limit, bool exact) const {
    if (kOneWord) {
        const uint64_t star = star_[0], start = start_[0], final = finalBit_;
        uint64_t set = start;
        if (!exact && (set & final) != 0) return from;
        for (size_t i = from; i < limit; ++i) {
            unsigned char c = static_cast<unsigned char>(text[i]);
            set = stepOne(set, accept_[byteClass_[c]], star, c == '/');
            if (kSearch) {
                set |= start;
            } else if (set == 0) {
                return npos;
            }
            if (!exact && (set & final) != 0) return i + 1;
        }
        return exact && (set & final) != 0 ? limit : npos;
    }
    StateBuffer buffer(words_);
    uint64_t *set = buffer.set;
    memcpy(set, start_.data(), words_ * sizeof(uint64_t));
    if (!exact && (set[finalWord_] & finalBit_) != 0) return from;
    for (size_t i = from; i < limit; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!stepWords(set, &accept_[byteClass_[c] * words_], star_.data(),
                       kSearch ? start_.data() : nullptr, words_, c == '/')) {
            return npos;
        }
        if (!exact && (set[finalWord_] & finalBit_) != 0) return i + 1;
    }
    return exact && (set[finalWord_] & finalBit_) != 0 ? limit : npos;
}

template <bool kOneWord>
size_t BlockAutomaton::backward(const char *text, size_t lo, size_t end) const {
    if (kOneWord) {
        const uint64_t star = star_[0], final = finalBit_;
        uint64_t set = start_[0];
        if ((set & final) != 0) return end;
        for (size_t i = end; i > lo;) {
            unsigned char c = static_cast<unsigned char>(text[--i]);
            set = stepOne(set, accept_[byteClass_[c]], star, c == '/');
            if (set == 0) return npos;
            if ((set & final) != 0) return i;
        }
        return npos;
    }
    StateBuffer buffer(words_);
    uint64_t *set = buffer.set;
    memcpy(set, start_.data(), words_ * sizeof(uint64_t));
    if ((set[finalWord_] & finalBit_) != 0) return end;
    for (size_t i = end; i > lo;) {
        unsigned char c = static_cast<unsigned char>(text[--i]);
        if (!stepWords(set, &accept_[byteClass_[c] * words_], star_.data(), nullptr, words_,
                       c == '/')) {
            return npos;
        }
        if ((set[finalWord_] & finalBit_) != 0) return i;
    }
    return npos;
}

size_t BlockAutomaton::earliestEnd(const char *text, size_t from, size_t limit) const {
    return words_ == 1 ? forward<true, false>(text, from, limit, false)
                       : forward<false, false>(text, from, limit, false);
}

size_t BlockAutomaton::searchEarliestEnd(const char *text, size_t from, size_t limit) const {
    return words_ == 1 ? forward<true, true>(text, from, limit, false)
                       : forward<false, true>(text, from, limit, false);
}

bool BlockAutomaton::matchesExactly(const char *text, size_t from, size_t end) const {
    return (words_ == 1 ? forward<true, false>(text, from, end, true)
                        : forward<false, false>(text, from, end, true)) != npos;
}

size_t BlockAutomaton::latestStartReversed(const char *text, size_t lo, size_t end) const {
    return words_ == 1 ? backward<true>(text, lo, end) : backward<false>(text, lo, end);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
