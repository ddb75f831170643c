#include "support/glob_reference.h"

#include <cctype>
#include <stdexcept>

namespace testsupport {

GlobReference::GlobReference(const std::string &text) {
    const char *p = text.c_str();
    expression_ = "^";
    for (; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '*') {
            bool run = p[1] == '*';
            while (p[1] == '*') ++p;
            expression_ += run ? ".*" : "[^/]*";
            continue;
        }
        if (c == '?') {
            expression_ += "[^/]";
            continue;
        }
        if (c == '\\') {
            if (p[1] == '\0') {
                never_ = true;
                return;
            }
            c = static_cast<unsigned char>(*++p);
        }
        // Every byte but letters and digits goes in brackets, where only "]" and "^" are
        // special; a caret is escaped outside them instead.
        if (isalnum(c)) {
            expression_ += static_cast<char>(c);
        } else if (c == '^') {
            expression_ += "\\^";
        } else {
            expression_ += '[';
            expression_ += static_cast<char>(c);
            expression_ += ']';
        }
    }
    expression_ += '$';
    if (regcomp(&regex_, expression_.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        throw std::runtime_error("regcomp failed for " + expression_);
    }
    compiled_ = true;
}

GlobReference::~GlobReference() {
    if (compiled_) regfree(&regex_);
}

bool GlobReference::matches(const std::string &path) const {
    return !never_ && regexec(&regex_, path.c_str(), 0, nullptr, 0) == 0;
}

}  // namespace testsupport
