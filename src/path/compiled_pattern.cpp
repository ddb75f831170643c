#include "path/compiled_pattern.h"

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace TELO {
namespace Backup {
namespace internal {

namespace {

constexpr size_t npos = std::string::npos;

// Blocks of more words than this run on a per-thread buffer instead of the stack.
constexpr unsigned kStackWords = 8;

// The two state sets of a multi-word run.
class StateBuffer {
  public:
    explicit StateBuffer(unsigned words) {
        uint64_t *base = stack_;
        if (words > kStackWords) {
            static thread_local std::vector<uint64_t> heap;
            if (heap.size() < 2u * words) heap.resize(2u * words);
            base = heap.data();
        }
        current = base;
        next = base + words;
    }
    uint64_t *current;
    uint64_t *next;

  private:
    uint64_t stack_[2 * kStackWords];
};

// One byte of input for a one-word automaton: tokens that consume the byte advance, single
// stars keep their state on any byte but "/", then every star may be skipped.
inline uint64_t stepOne(uint64_t set, uint64_t accept, uint64_t star, bool slash) {
    uint64_t next = (set & accept) << 1;
    if (!slash) next |= set & star;
    return next | ((next & star) << 1);
}

// The same over `words` words; `inject` (may be null) is or-ed in. Returns whether any state
// is left.
inline bool stepWords(const uint64_t *set, uint64_t *next, const uint64_t *accept,
                      const uint64_t *star, const uint64_t *inject, unsigned words, bool slash) {
    uint64_t carry = 0;
    for (unsigned w = 0; w < words; ++w) {
        uint64_t moved = set[w] & accept[w];
        uint64_t n = (moved << 1) | carry;
        carry = moved >> 63;
        if (!slash) n |= set[w] & star[w];
        next[w] = n;
    }
    carry = 0;
    uint64_t any = 0;
    for (unsigned w = 0; w < words; ++w) {
        uint64_t skipped = next[w] & star[w];
        next[w] |= (skipped << 1) | carry;
        carry = skipped >> 63;
        if (inject != nullptr) next[w] |= inject[w];
        any |= next[w];
    }
    return any != 0;
}

}  // namespace

// ---- MatchSubject -----------------------------------------------------------------------------

void MatchSubject::summarize() {
    summarized_ = true;
    auto add = [this](size_t at) {
        if (at + 2 < size_) {
            pairs_ |= pairBit(static_cast<unsigned char>(data_[at + 1]),
                              static_cast<unsigned char>(data_[at + 2]));
        }
    };
    size_t i = 0;
#if defined(__SSE2__)
    // Sixteen bytes at a time: bit k of `hits` marks a "/" at i + k.
    const __m128i slash = _mm_set1_epi8('/');
    for (; i + 16 <= size_; i += 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i *>(data_ + i));
        unsigned hits = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, slash)));
        for (; hits != 0; hits &= hits - 1) add(i + static_cast<size_t>(__builtin_ctz(hits)));
    }
#endif
    for (; i < size_; ++i) {
        if (data_[i] == '/') add(i);
    }
}

namespace {

// Leftmost position in [from, limit - needle size] where `needle` (not empty) starts, or npos.
size_t find(const char *text, const std::string &needle, size_t from, size_t limit) {
    if (limit < from || limit - from < needle.size()) return npos;
    const void *hit = memmem(text + from, limit - from, needle.data(), needle.size());
    return hit == nullptr ? npos : static_cast<size_t>(static_cast<const char *>(hit) - text);
}

}  // namespace

// ---- BlockAutomaton ---------------------------------------------------------------------------

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
            default:
                star_[word] |= bit;
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
    memcpy(buffer.current, start_.data(), words_ * sizeof(uint64_t));
    if (!exact && (buffer.current[finalWord_] & finalBit_) != 0) return from;
    for (size_t i = from; i < limit; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        bool alive = stepWords(buffer.current, buffer.next, &accept_[byteClass_[c] * words_],
                               star_.data(), kSearch ? start_.data() : nullptr, words_, c == '/');
        std::swap(buffer.current, buffer.next);
        if (!alive) return npos;
        if (!exact && (buffer.current[finalWord_] & finalBit_) != 0) return i + 1;
    }
    return exact && (buffer.current[finalWord_] & finalBit_) != 0 ? limit : npos;
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
    memcpy(buffer.current, start_.data(), words_ * sizeof(uint64_t));
    if ((buffer.current[finalWord_] & finalBit_) != 0) return end;
    for (size_t i = end; i > lo;) {
        unsigned char c = static_cast<unsigned char>(text[--i]);
        bool alive = stepWords(buffer.current, buffer.next, &accept_[byteClass_[c] * words_],
                               star_.data(), nullptr, words_, c == '/');
        std::swap(buffer.current, buffer.next);
        if (!alive) return npos;
        if ((buffer.current[finalWord_] & finalBit_) != 0) return i;
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

// ---- Piece, LiteralRun ------------------------------------------------------------------------

bool Piece::at(const char *text, size_t position) const {
    if (literalOnly) return memcmp(text + position, bytes.data(), bytes.size()) == 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        char c = text[position + i];
        if (any[i] ? c == '/' : c != bytes[i]) return false;
    }
    return true;
}

void LiteralRun::assign(const std::string &bytes, bool atEnd) {
    bytes_ = bytes;
    atEnd_ = atEnd;
    // The word holds the last 8 bytes of a prefix, the first 8 of a suffix: where paths that
    // share a start or an end first differ. Shorter runs are padded and masked.
    unsigned char word[8] = {}, mask[8] = {};
    size_t n = bytes.size() < 8 ? bytes.size() : 8;
    size_t from = atEnd || bytes.size() < 8 ? 0 : bytes.size() - 8;
    size_t to = atEnd && bytes.size() < 8 ? 8 - n : 0;
    for (size_t i = 0; i < n; ++i) {
        word[to + i] = static_cast<unsigned char>(bytes[from + i]);
        mask[to + i] = 0xFF;
    }
    memcpy(&word_, word, 8);
    memcpy(&mask_, mask, 8);
}

bool LiteralRun::rest(const char *text, size_t size) const {
    size_t n = bytes_.size();
    return atEnd_ ? memcmp(text + size - n + 8, bytes_.data() + 8, n - 8) == 0
                  : memcmp(text, bytes_.data(), n - 8) == 0;
}

// ---- CompiledPattern --------------------------------------------------------------------------

namespace {

enum class Role { Only, First, Middle, Last };

// Whether the pieces of a block can be placed against slashes alone in the given role: the
// pieces between single stars, and the one at the free end (a first block's last piece, a
// last block's first piece), must hold a "/". (A piece at a free end is never empty: a single
// star next to a run of stars would be part of the run.)
bool canPin(const std::vector<Piece> &pieces, Role role) {
    size_t last = pieces.size() - 1;
    if (role == Role::Middle || last == 0) return false;
    for (size_t i = 1; i < last; ++i) {
        if (!pieces[i].hasSlash()) return false;
    }
    if (role == Role::First) return pieces[last].hasSlash();
    if (role == Role::Last) return pieces[0].hasSlash();
    return true;
}

}  // namespace

CompiledPattern::CompiledPattern(const char *pattern) {
    std::vector<Token> tokens;
    for (const char *p = pattern; *p != '\0'; ++p) {
        if (*p == '\\') {
            // A lone "\" at the end is compared with the end of the string: never equal.
            if (p[1] == '\0') {
                kind_ = Kind::Never;
                minLength_ = SIZE_MAX;
                return;
            }
            ++p;
            tokens.push_back({TokenKind::Literal, static_cast<unsigned char>(*p)});
        } else if (*p == '*') {
            bool run = p[1] == '*';
            while (p[1] == '*') ++p;
            tokens.push_back({run ? TokenKind::StarRun : TokenKind::Star, 0});
        } else if (*p == '?') {
            tokens.push_back({TokenKind::AnyByte, 0});
        } else {
            tokens.push_back({TokenKind::Literal, static_cast<unsigned char>(*p)});
        }
    }

    size_t first = 0, last = tokens.size();
    std::string prefix, suffix;
    while (first < last && tokens[first].kind == TokenKind::Literal) {
        prefix += static_cast<char>(tokens[first++].byte);
    }
    prefix_.assign(prefix, false);
    if (first == last) {
        kind_ = Kind::Exact;
        minLength_ = prefix.size();
        return;
    }
    while (tokens[last - 1].kind == TokenKind::Literal) --last;
    for (size_t i = last; i < tokens.size(); ++i) suffix += static_cast<char>(tokens[i].byte);
    suffix_.assign(suffix, true);
    for (const Token &t : tokens) {
        if (t.kind == TokenKind::Literal || t.kind == TokenKind::AnyByte) ++minLength_;
    }

    std::vector<Token> core(tokens.begin() + first, tokens.begin() + last);
    if (core.size() == 1) {
        if (core[0].kind == TokenKind::StarRun) kind_ = Kind::AnyCore;
        if (core[0].kind == TokenKind::Star) kind_ = Kind::NoSlash;
    } else if (core.front().kind == TokenKind::StarRun && core.back().kind == TokenKind::StarRun) {
        bool literal = true;
        for (size_t i = 1; i + 1 < core.size(); ++i) {
            literal = literal && core[i].kind == TokenKind::Literal;
            needle_ += static_cast<char>(core[i].byte);
        }
        if (literal) kind_ = Kind::Contains;
        if (!literal) needle_.clear();
        if (literal && needle_.size() >= 3 && needle_[0] == '/') {
            needlePair_ = MatchSubject::pairBit(static_cast<unsigned char>(needle_[1]),
                                                static_cast<unsigned char>(needle_[2]));
        }
    }
    if (kind_ != Kind::General) return;

    // Blocks between runs of stars, each cut into pieces at its single stars.
    std::vector<std::vector<Token>> blockTokens(1);
    for (const Token &t : core) {
        if (t.kind == TokenKind::StarRun) {
            blockTokens.emplace_back();
        } else {
            blockTokens.back().push_back(t);
        }
    }
    blocks_.resize(blockTokens.size());
    for (size_t b = 0; b < blocks_.size(); ++b) {
        Block &block = blocks_[b];
        const std::vector<Token> &ts = blockTokens[b];
        block.pieces.emplace_back();
        for (const Token &t : ts) {
            if (t.kind == TokenKind::Star) {
                block.pieces.emplace_back();
                continue;
            }
            Piece &piece = block.pieces.back();
            bool slash = t.kind == TokenKind::Literal && t.byte == '/';
            if (slash && piece.firstSlash == Piece::npos) piece.firstSlash = piece.size();
            if (slash) piece.lastSlash = piece.size();
            piece.literalOnly = piece.literalOnly && t.kind == TokenKind::Literal;
            piece.any += t.kind == TokenKind::AnyByte ? '\1' : '\0';
            piece.bytes += t.kind == TokenKind::Literal ? static_cast<char>(t.byte) : '?';
        }
        Role role = blocks_.size() == 1       ? Role::Only
                    : b == 0                  ? Role::First
                    : b + 1 == blocks_.size() ? Role::Last
                                              : Role::Middle;
        block.pinned = canPin(block.pieces, role);
        bool fixed = block.pieces.size() == 1;
        if (role == Role::Middle ? !(fixed && block.pieces[0].literalOnly)
                                 : !fixed && !block.pinned) {
            if (role == Role::Last) {
                block.automaton.build(std::vector<Token>(ts.rbegin(), ts.rend()));
            } else {
                block.automaton.build(ts);
            }
        }
    }
}

size_t CompiledPattern::firstBlockEnd(const Block &block, const char *text, size_t lo,
                                      size_t hi) const {
    if (!block.pinned && block.pieces.size() > 1) return block.automaton.earliestEnd(text, lo, hi);
    const Piece &head = block.pieces[0];
    if (hi - lo < head.size() || !head.at(text, lo)) return npos;
    size_t end = lo + head.size();
    for (size_t i = 1; i < block.pieces.size(); ++i) {
        const Piece &piece = block.pieces[i];
        // The star before the piece stops at the first "/", which the piece's first "/" is.
        const void *slash = memchr(text + end, '/', hi - end);
        if (slash == nullptr) return npos;
        size_t at = static_cast<size_t>(static_cast<const char *>(slash) - text);
        if (at - end < piece.firstSlash) return npos;
        at -= piece.firstSlash;
        if (hi - at < piece.size() || !piece.at(text, at)) return npos;
        end = at + piece.size();
    }
    return end;
}

size_t CompiledPattern::lastBlockStart(const Block &block, const char *text, size_t lo,
                                       size_t hi) const {
    if (!block.pinned && block.pieces.size() > 1) {
        return block.automaton.latestStartReversed(text, lo, hi);
    }
    const Piece &tail = block.pieces.back();
    if (hi - lo < tail.size() || !tail.at(text, hi - tail.size())) return npos;
    size_t start = hi - tail.size();
    for (size_t i = block.pieces.size() - 1; i-- > 0;) {
        const Piece &piece = block.pieces[i];
        // The star after the piece stops at the last "/", which the piece's last "/" is.
        const void *slash = memrchr(text + lo, '/', start - lo);
        if (slash == nullptr) return npos;
        size_t at = static_cast<size_t>(static_cast<const char *>(slash) - text);
        if (at - lo < piece.lastSlash) return npos;
        at -= piece.lastSlash;
        if (start - at < piece.size() || !piece.at(text, at)) return npos;
        start = at;
    }
    return start;
}

bool CompiledPattern::onlyBlockMatches(const Block &block, const char *text, size_t lo,
                                       size_t hi) const {
    if (!block.pinned && block.pieces.size() > 1) {
        return block.automaton.matchesExactly(text, lo, hi);
    }
    // Pinned: the head at the start, the tail at the end, every piece between against the
    // next "/", and no "/" left for the last star.
    const Piece &head = block.pieces[0];
    const Piece &tail = block.pieces.back();
    if (block.pieces.size() == 1) return hi - lo == head.size() && head.at(text, lo);
    if (hi - lo < head.size() + tail.size() || !head.at(text, lo)) return false;
    size_t end = lo + head.size(), tailAt = hi - tail.size();
    if (!tail.at(text, tailAt)) return false;
    for (size_t i = 1; i + 1 < block.pieces.size(); ++i) {
        const Piece &piece = block.pieces[i];
        const void *slash = memchr(text + end, '/', tailAt - end);
        if (slash == nullptr) return false;
        size_t at = static_cast<size_t>(static_cast<const char *>(slash) - text);
        if (at - end < piece.firstSlash) return false;
        at -= piece.firstSlash;
        if (tailAt - at < piece.size() || !piece.at(text, at)) return false;
        end = at + piece.size();
    }
    return memchr(text + end, '/', tailAt - end) == nullptr;
}

size_t CompiledPattern::middleBlockEnd(const Block &block, const char *text, size_t from,
                                       size_t limit) const {
    const Piece &piece = block.pieces[0];
    if (block.pieces.size() > 1 || !piece.literalOnly) {
        return block.automaton.searchEarliestEnd(text, from, limit);
    }
    size_t at = find(text, piece.bytes, from, limit);
    return at == npos ? npos : at + piece.size();
}

bool CompiledPattern::matchBlocks(const char *text, size_t lo, size_t hi) const {
    if (blocks_.size() == 1) return onlyBlockMatches(blocks_[0], text, lo, hi);
    // Runs of stars separate the blocks, so the earliest end of each block leaves the most room
    // for the rest, and the latest start of the last block the most before it.
    size_t end = firstBlockEnd(blocks_.front(), text, lo, hi);
    if (end == npos) return false;
    size_t start = lastBlockStart(blocks_.back(), text, end, hi);
    if (start == npos) return false;
    for (size_t b = 1; b + 1 < blocks_.size() && end != npos; ++b) {
        end = middleBlockEnd(blocks_[b], text, end, start);
    }
    return end != npos;
}

bool CompiledPattern::matchCore(MatchSubject &subject) const {
    const char *text = subject.data();
    size_t lo = prefix_.bytes().size(), hi = subject.size() - suffix_.bytes().size();
    switch (kind_) {
        case Kind::NoSlash:
            return memchr(text + lo, '/', hi - lo) == nullptr;
        case Kind::Contains:
            return find(text, needle_, lo, hi) != npos;
        default:
            return matchBlocks(text, lo, hi);
    }
}

int CompiledPattern::lastByte() const {
    const std::string &tail = kind_ == Kind::Exact ? prefix_.bytes() : suffix_.bytes();
    return tail.empty() ? -1 : static_cast<unsigned char>(tail.back());
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
