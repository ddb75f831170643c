// Opening names that another user may have arranged: a lock name kept beneath its directory,
// and a configuration path whose symbolic links are followed only when they can be trusted;
// and changing what was opened through its descriptor rather than its name.
#ifndef TELO_SRC_INTERNAL_SAFE_OPEN_H
#define TELO_SRC_INTERNAL_SAFE_OPEN_H

#include <sys/types.h>

#include <string>

#include "internal/unique_fd.h"

namespace TELO {
namespace Backup {
namespace internal {

// openat(dirFd, name, flags, mode) confined beneath `dirFd`: a name that is absolute or climbs
// out with ".." fails with EXDEV, one that meets a symbolic link anywhere with ELOOP ("a/../b"
// stays inside and is allowed). Close-on-exec. -1 with errno on failure.
int openBeneath(int dirFd, const std::string &name, int flags, mode_t mode);

// The same by walking the components one by one, for kernels without openat2.
int openBeneathByWalk(int dirFd, const std::string &name, int flags, mode_t mode);

// A configuration file as openConfigFile found it.
struct ConfigFile {
    UniqueFd fd;       // the file, opened with the caller's flags
    UniqueFd dir;      // the directory holding it (an O_PATH descriptor)
    std::string name;  // its name in `dir`
    // Its path: `path` as given when no link was followed, else with the links resolved.
    std::string path;
};

// Opens the configuration file `path` with `flags` (close-on-exec added). A symbolic link
// anywhere in the path is followed only when it is owned by root, by the caller's effective
// uid, or by the owner of what it points at (the kernel's protected_symlinks rule, applied in
// every directory); otherwise the call fails with EPERM before the file is opened for reading
// or writing. With O_CREAT a missing file is created (`mode` less the umask), through a link
// only when the link is root's or the caller's. Only a regular file is handed out: it is opened
// non-blocking (so a FIFO cannot stall the open) and anything else fails with EISDIR (a
// directory) or EINVAL, so that no FIFO or device is ever read as configuration. Failure: false
// with errno; when only the file itself is missing (ENOENT), `dir`, `name` and `path` are still
// filled in, so that a rewrite can create it.
bool openConfigFile(const std::string &path, int flags, mode_t mode, ConfigFile &out);

// fchmod of what `fd` holds; an O_PATH descriptor, which fchmod refuses with EBADF, is reached
// through /proc/self/fd. 0, or -1 with errno.
int chmodHeld(int fd, mode_t mode);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
