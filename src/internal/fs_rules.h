// Small rules about names and file systems that several modules apply; one spelling each.
#ifndef TELO_SRC_INTERNAL_FS_RULES_H
#define TELO_SRC_INTERNAL_FS_RULES_H

#include <cerrno>
#include <string>

#include "internal/errno_saver.h"
#include "telo/platform.h"

namespace TELO {
namespace Backup {
namespace internal {

// Room for "/proc/self/fd/" and any descriptor number, the path through which a descriptor
// opened O_PATH is reached by calls that refuse it; not an interface limit.
constexpr size_t kProcFdPathSize = 64;

// True when `name` names one entry of a directory: not empty, no '/', not "." or "..". Names
// given by callers (lock tokens, session ids, temporary names) must pass before they are joined
// to a directory, so that they cannot climb out of it.
inline bool isPlainName(const std::string &name) {
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != "..";
}

// True when a chmod of `path` refused with `chmodErrno` is only what its file system always
// does: FAT and foreign file systems keep no Unix modes and answer EPERM. errno is kept.
inline bool chmodRefusalExpected(int chmodErrno, const std::string &path) {
    if (chmodErrno != EPERM) return false;
    ErrnoSaver keep;
    int type = TELOGetFSType(path.c_str(), 0);
    return type == TELO_FS_FAT || type == TELO_FS_FOREIGN;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
