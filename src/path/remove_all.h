// The one recursive removal behind removeAll and ScopedTempFolder::unlink.
#ifndef TELO_SRC_PATH_REMOVE_ALL_H
#define TELO_SRC_PATH_REMOVE_ALL_H

#include <cstddef>
#include <string>

namespace TELO {
namespace Backup {
namespace internal {

// Directory descriptors a removal holds at once: the top and the deepest levels below it.
constexpr size_t kRemovalOpenLevels = 20;

struct TreeRemoval {
    // lstat of the top succeeded; otherwise nothing was tried and topErrno says why.
    bool examined = false;
    int topErrno = 0;
    // The first removal that failed (ENOENT never counts): its path, whether it was an rmdir,
    // and the errno of that call.
    bool failed = false;
    std::string failedPath;
    bool failedDirectory = false;
    int failedErrno = 0;
};

// Removes `path` and everything below it, children before their directory. Symbolic links are
// removed, never followed; other file systems mounted inside, directories bound there and files
// bind-mounted there are left alone with their mount points. Every level is opened relative to
// its parent's descriptor without following links, at any depth, with at most
// kRemovalOpenLevels directory descriptors open at once: a deep level whose parent's descriptor
// was given up climbs back with "..", checked by device and inode, or is reached again from the
// top by the same names. A directory another process moved out of the tree while it was being
// emptied is left where it went. Single failures never stop the walk.
TreeRemoval removeTree(const std::string &path);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
