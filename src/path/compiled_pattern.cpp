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
    const void *hit = needle.size() == 1
                          ? memchr(text + from, needle[0], limit - from)
                          : memmem(text + from, limit - from, needle.data(), needle.size());
    return hit == nullptr ? npos : static_cast<size_t>(static_cast<const char *>(hit) - text);
}

}  // namespace

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

// Whether a block can be matched by placing its pieces one by one (see placePieces) in its
// role; otherwise the automaton follows it. A middle block, or a last one that does not sit
// against slashes, must hold no "/": it then lies inside one component.
bool canPlace(const std::vector<Piece> &pieces, Role role) {
    size_t last = pieces.size() - 1;
    bool slashes = false, pinned = true;
    for (size_t i = 0; i < pieces.size(); ++i) {
        slashes = slashes || pieces[i].hasSlash();
        if (i < last) pinned = pinned && pieces[i].hasSlash();
    }
    if (role == Role::Middle) return !slashes;
    if (role == Role::Last) return pinned || !slashes;
    return true;
}

// A block's tokens as pieces, cut at its single stars; the pieces with "?" and no "/" get the
// automaton that searches for them.
std::vector<Piece> cutIntoPieces(const std::vector<Token> &tokens) {
    std::vector<Piece> pieces(1);
    for (const Token &t : tokens) {
        if (t.kind == TokenKind::Star) {
            pieces.emplace_back();
            continue;
        }
        Piece &piece = pieces.back();
        bool slash = t.kind == TokenKind::Literal && t.byte == '/';
        if (slash && piece.firstSlash == Piece::npos) piece.firstSlash = piece.size();
        if (slash) piece.lastSlash = piece.size();
        piece.literalOnly = piece.literalOnly && t.kind == TokenKind::Literal;
        piece.any += t.kind == TokenKind::AnyByte ? '\1' : '\0';
        piece.bytes += t.kind == TokenKind::Literal ? static_cast<char>(t.byte) : '?';
    }
    for (Piece &piece : pieces) {
        if (piece.literalOnly || piece.hasSlash()) continue;
        std::vector<Token> own;
        for (size_t i = 0; i < piece.size(); ++i) {
            own.push_back({piece.any[i] ? TokenKind::AnyByte : TokenKind::Literal,
                           static_cast<unsigned char>(piece.bytes[i])});
        }
        piece.search.build(own);
    }
    return pieces;
}

}  // namespace

CompiledPattern::CompiledPattern(const char *pattern) {
    std::vector<Token> tokens;
    if (!tokenize(pattern, tokens)) {
        kind_ = Kind::Never;
        minLength_ = SIZE_MAX;
        return;
    }
    if (!takeLiteralEnds(tokens) || !classifyCore(tokens)) return;
    buildBlocks(tokens);
}

// False when the pattern can never match: it ends in a lone "\", which is compared with the end
// of the path and never equal.
bool CompiledPattern::tokenize(const char *pattern, std::vector<Token> &tokens) {
    for (Token t = readToken(pattern); t.kind != TokenKind::End; t = readToken(pattern)) {
        if (t.kind == TokenKind::LoneBackslash) return false;
        tokens.push_back(t);
    }
    return true;
}

// Moves the literal prefix and suffix out of `tokens`, leaving the core between them, and
// counts the bytes every match has. False when no core is left: the pattern is Exact.
bool CompiledPattern::takeLiteralEnds(std::vector<Token> &tokens) {
    size_t first = 0, last = tokens.size();
    std::string prefix, suffix;
    while (first < last && tokens[first].kind == TokenKind::Literal) {
        prefix += static_cast<char>(tokens[first++].byte);
    }
    prefix_.assign(prefix, false);
    if (first == last) {
        kind_ = Kind::Exact;
        minLength_ = prefix.size();
        return false;
    }
    while (tokens[last - 1].kind == TokenKind::Literal) --last;
    for (size_t i = last; i < tokens.size(); ++i) suffix += static_cast<char>(tokens[i].byte);
    suffix_.assign(suffix, true);
    for (const Token &t : tokens) {
        if (t.kind == TokenKind::Literal || t.kind == TokenKind::AnyByte) ++minLength_;
    }
    tokens.erase(tokens.begin() + last, tokens.end());
    tokens.erase(tokens.begin(), tokens.begin() + first);
    return true;
}

// The cores that need no blocks: one star or run of stars, or a literal between two runs.
// False when the core is one of them.
bool CompiledPattern::classifyCore(const std::vector<Token> &core) {
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
    return kind_ == Kind::General;
}

// Blocks between runs of stars, each cut into pieces; the automaton for the blocks whose pieces
// cannot be placed one by one in their role.
void CompiledPattern::buildBlocks(const std::vector<Token> &core) {
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
        block.pieces = cutIntoPieces(ts);
        Role role = blocks_.size() == 1       ? Role::Only
                    : b == 0                  ? Role::First
                    : b + 1 == blocks_.size() ? Role::Last
                                              : Role::Middle;
        block.placed = canPlace(block.pieces, role);
        if (!block.placed) {
            if (role == Role::Last) {
                block.automaton.build(std::vector<Token>(ts.rbegin(), ts.rend()));
            } else {
                block.automaton.build(ts);
            }
        }
    }
}

namespace {

// Leftmost start of `piece` (without "/") in text[from, limit), or npos.
size_t findPiece(const Piece &piece, const char *text, size_t from, size_t limit) {
    if (piece.size() == 0) return from;
    if (piece.literalOnly) return find(text, piece.bytes, from, limit);
    size_t end = piece.search.searchEarliestEnd(text, from, limit);
    return end == npos ? npos : end - piece.size();
}

// End of `piece` placed leftmost at or after `from` with no "/" before it, ending by `limit`;
// npos when there is no such place. A piece holding "/" can only sit with its first "/" on the
// first "/" from `from`; one without is searched for, and must come before that "/".
size_t placeAfter(const Piece &piece, const char *text, size_t from, size_t limit, bool slashFree) {
    if (!piece.hasSlash()) {
        size_t at = findPiece(piece, text, from, limit);
        if (at == npos || (!slashFree && memchr(text + from, '/', at - from) != nullptr)) {
            return npos;
        }
        return at + piece.size();
    }
    const void *slash = memchr(text + from, '/', limit - from);
    if (slash == nullptr) return npos;
    size_t at = static_cast<size_t>(static_cast<const char *>(slash) - text);
    if (at - from < piece.firstSlash) return npos;
    at -= piece.firstSlash;
    if (limit - at < piece.size() || !piece.at(text, at)) return npos;
    return at + piece.size();
}

// Places pieces [first, last) one after the other from `from`, each as early as it can go;
// the end of the last, or npos. As single stars join them, an earlier place never hurts the
// pieces after it. `slashFree`: the caller knows text[from, limit) holds no "/".
size_t placePieces(const std::vector<Piece> &pieces, size_t first, size_t last, const char *text,
                   size_t from, size_t limit, bool slashFree = false) {
    for (size_t i = first; i < last && from != npos; ++i) {
        from = placeAfter(pieces[i], text, from, limit, slashFree);
    }
    return from;
}

}  // namespace

size_t CompiledPattern::firstBlockEnd(const Block &block, const char *text, size_t lo,
                                      size_t hi) const {
    if (!block.placed) return block.automaton.earliestEnd(text, lo, hi);
    const Piece &head = block.pieces[0];
    if (hi - lo < head.size() || !head.at(text, lo)) return npos;
    return placePieces(block.pieces, 1, block.pieces.size(), text, lo + head.size(), hi);
}

bool CompiledPattern::lastBlockMatches(const Block &block, const char *text, size_t lo,
                                       size_t hi) const {
    if (!block.placed) return block.automaton.latestStartReversed(text, lo, hi) != npos;
    const Piece &tail = block.pieces.back();
    if (hi - lo < tail.size() || !tail.at(text, hi - tail.size())) return false;
    size_t start = hi - tail.size();
    if (block.pieces.size() > 1 && !block.pieces[0].hasSlash()) {
        // No "/" in the block: it lies in the last component, where its pieces go leftmost.
        const void *slash = memrchr(text + lo, '/', hi - lo);
        size_t from = slash == nullptr ? lo : static_cast<const char *>(slash) - text + 1;
        return placePieces(block.pieces, 0, block.pieces.size() - 1, text, from, start, true) !=
               npos;
    }
    for (size_t i = block.pieces.size() - 1; i-- > 0;) {
        // The star after the piece stops at the last "/", which the piece's last "/" is.
        const Piece &piece = block.pieces[i];
        const void *slash = memrchr(text + lo, '/', start - lo);
        if (slash == nullptr) return false;
        size_t at = static_cast<size_t>(static_cast<const char *>(slash) - text);
        if (at - lo < piece.lastSlash) return false;
        at -= piece.lastSlash;
        if (start - at < piece.size() || !piece.at(text, at)) return false;
        start = at;
    }
    return true;
}

bool CompiledPattern::onlyBlockMatches(const Block &block, const char *text, size_t lo,
                                       size_t hi) const {
    if (!block.placed) return block.automaton.matchesExactly(text, lo, hi);
    // The head at the start, the tail at the end, the pieces between as early as they go, and
    // no "/" left for the last star.
    const Piece &head = block.pieces[0];
    const Piece &tail = block.pieces.back();
    if (block.pieces.size() == 1) return hi - lo == head.size() && head.at(text, lo);
    if (hi - lo < head.size() + tail.size() || !head.at(text, lo)) return false;
    size_t tailAt = hi - tail.size();
    if (!tail.at(text, tailAt)) return false;
    size_t end =
        placePieces(block.pieces, 1, block.pieces.size() - 1, text, lo + head.size(), tailAt);
    return end != npos && memchr(text + end, '/', tailAt - end) == nullptr;
}

size_t CompiledPattern::middleBlockEnd(const Block &block, const char *text, size_t from,
                                       size_t limit) const {
    if (!block.placed) return block.automaton.searchEarliestEnd(text, from, limit);
    // No "/" in the block: each component from the left gets one try, from the first place of
    // the head in it; if the rest does not fit there, no later head in that component helps.
    const std::vector<Piece> &pieces = block.pieces;
    while (from < limit) {
        size_t at = findPiece(pieces[0], text, from, limit);
        if (at == npos) return npos;
        const void *slash = memchr(text + at, '/', limit - at);
        size_t end = slash == nullptr ? limit : static_cast<const char *>(slash) - text;
        size_t placed = placePieces(pieces, 0, pieces.size(), text, at, end, true);
        if (placed != npos || slash == nullptr) return placed;
        from = end + 1;
    }
    return npos;
}

bool CompiledPattern::matchBlocks(const char *text, size_t lo, size_t hi) const {
    if (blocks_.size() == 1) return onlyBlockMatches(blocks_[0], text, lo, hi);
    // Runs of stars separate the blocks, so the earliest end of each block leaves the most room
    // for the rest.
    size_t end = firstBlockEnd(blocks_.front(), text, lo, hi);
    for (size_t b = 1; b + 1 < blocks_.size() && end != npos; ++b) {
        end = middleBlockEnd(blocks_[b], text, end, hi);
    }
    return end != npos && lastBlockMatches(blocks_.back(), text, end, hi);
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
