#include "support/glob_reference.h"

#include <cctype>
#include <cstring>
#include <stdexcept>

namespace testsupport {

GlobReference::GlobReference(const std::string &pattern) {
    std::string expression = "^";
    for (const char *p = pattern.c_str(); *p != '\0' && !never_; ++p) {
        if (*p == '*') {
            expression += p[1] == '*' ? ".*" : "[^/]*";
            while (p[1] == '*') ++p;
        } else if (*p == '?') {
            expression += "[^/]";
        } else if (*p == '\\' && p[1] == '\0') {
            never_ = true;
        } else {
            // Other bytes go in brackets, where only "^" (escaped outside instead) is special.
            unsigned char c = static_cast<unsigned char>(*p == '\\' ? *++p : *p);
            expression += isalnum(c) ? std::string(1, static_cast<char>(c))
                          : c == '^' ? std::string("\\^")
                                     : std::string("[") + static_cast<char>(c) + "]";
        }
    }
    if (regcomp(&regex_, never_ ? "^$" : (expression + "$").c_str(), REG_EXTENDED | REG_NOSUB)) {
        throw std::runtime_error("regcomp failed for " + expression);
    }
}

GlobReference::~GlobReference() {
    regfree(&regex_);
}

bool GlobReference::matches(const std::string &path) const {
    return !never_ && regexec(&regex_, path.c_str(), 0, nullptr, 0) == 0;
}

namespace {

int starReference(const char *pattern, const char *prefix, std::string &out) {
    if (pattern[1] == '*') {
        const char *end = pattern;
        while (*end == '*') ++end;
        out = "/" + std::string(end - 2);
        return 1;
    }
    if (pattern[1] == '\0') {
        if (strchr(prefix, '/') != nullptr) return 0;
        out = "*";
        return 1;
    }
    for (; *prefix != '\0'; ++prefix) {
        int result = rebaseReference(pattern + 1, prefix, out);
        if (result != 0 && result != -2) return result;
        if (result == 0 && *prefix == '/') return -2;
    }
    out = pattern + 1;
    return 1;
}

}  // namespace

int rebaseReference(const char *pattern, const char *prefix, std::string &out) {
    for (;; ++pattern, ++prefix) {
        if (*pattern == '\0') {
            if (*prefix != '\0') return 0;
            out.clear();
            return 1;
        }
        if (*pattern == '*') return starReference(pattern, prefix, out);
        if (*prefix == '\0') {
            // The prefix ends at a directory boundary of the pattern, or nothing applies below it.
            if (*pattern != '/') return 0;
            out = pattern;
            return 1;
        }
        if (*pattern == '?') {
            if (*prefix == '/') return 0;
        } else {
            if (*pattern == '\\') ++pattern;
            if (*pattern != *prefix) return 0;
        }
    }
}

}  // namespace testsupport
