// Renames of a source the caller holds open: its attributes are set through the descriptor, and
// what the rename moves is checked against it, so that a name swapped by another user between
// two calls never makes the caller change, or install, something else.
#ifndef TELO_SRC_INTERNAL_HELD_RENAME_H
#define TELO_SRC_INTERNAL_HELD_RENAME_H

#include <fcntl.h>

#include <string>

namespace TELO {
namespace Backup {
namespace internal {

struct HeldSource {
    int fd = -1;           // the source, open (an O_PATH descriptor will do); -1 if it could not be
    int openErrno = 0;     // why it could not be opened
    int dirFd = AT_FDCWD;  // the directory both names below are relative to
    std::string srcName;
    std::string dstName;
    std::string src;  // full paths, for log lines and the platform's calls
    std::string dst;
};

// Path::renameWithMode for a held source, with the same results, log lines and errno. Before the
// rename the source's name must still be the held file (device and inode), and afterwards the
// destination must be it; otherwise the call fails with errno ESTALE, logged as a failed rename.
// `nameGone` is set whenever the source's name no longer holds the caller's file, so that it is
// not the caller's to remove: swapped by another, or moved by a rename whose later step (the
// check, a mode or owner change) failed. Nothing is changed by path.
bool renameHeldWithMode(const HeldSource &source, bool &nameGone);

// rename(2) of a held source, with the same two checks; nothing logged.
bool renameHeld(const HeldSource &source, bool &nameGone);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
