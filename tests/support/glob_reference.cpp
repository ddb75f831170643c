#include "support/glob_reference.h"

#include <cctype>
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

}  // namespace testsupport
