// The one reader of path-filter pattern syntax, shared by the reference matcher
// (PathFilterPrivate::match), the rebaser and the compiler of patterns, so that the three agree
// on what "?", "*", a run of stars and "\" mean.
#ifndef TELO_SRC_PATH_PATTERN_TOKEN_H
#define TELO_SRC_PATH_PATTERN_TOKEN_H

#include <cstdint>

namespace TELO {
namespace Backup {
namespace internal {

enum class TokenKind : uint8_t {
    Literal,        // one byte, maybe escaped ("\*" is the literal star)
    AnyByte,        // "?"
    Star,           // "*"
    StarRun,        // two or more stars, read as one token
    LoneBackslash,  // "\" as the last byte: matches nothing, not even the end
    End             // the terminating NUL
};

struct Token {
    TokenKind kind;
    unsigned char byte;  // for Literal
};

// The token at `p`; moves `p` past it (not past the terminating NUL).
inline Token readToken(const char *&p) {
    switch (*p) {
        case '\0':
            return {TokenKind::End, 0};
        case '?':
            ++p;
            return {TokenKind::AnyByte, 0};
        case '*':
            if (*++p != '*') return {TokenKind::Star, 0};
            while (*p == '*') ++p;
            return {TokenKind::StarRun, 0};
        case '\\':
            if (p[1] == '\0') {
                ++p;
                return {TokenKind::LoneBackslash, 0};
            }
            p += 2;
            return {TokenKind::Literal, static_cast<unsigned char>(p[-1])};
        default:
            return {TokenKind::Literal, static_cast<unsigned char>(*p++)};
    }
}

// Whether `token` takes exactly the path byte `c` (not NUL): a literal equal to it, or "?" when
// it is not "/". Stars, the lone "\" and the end take none.
inline bool takesByte(const Token &token, char c) {
    return token.kind == TokenKind::AnyByte
               ? c != '/'
               : token.kind == TokenKind::Literal && token.byte == static_cast<unsigned char>(c);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
