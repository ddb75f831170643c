// Small rules about names and file systems that several modules apply; one spelling each.
#ifndef TELO_SRC_INTERNAL_FS_RULES_H
#define TELO_SRC_INTERNAL_FS_RULES_H

#include <string>

namespace TELO {
namespace Backup {
namespace internal {

// True when `name` names one entry of a directory: not empty, no '/', not "." or "..". Names
// given by callers (lock tokens, session ids, temporary names) must pass before they are joined
// to a directory, so that they cannot climb out of it.
inline bool isPlainName(const std::string &name) {
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != "..";
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
