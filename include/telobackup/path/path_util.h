// Path-string algebra, the application's well-known locations and careful file operations.
//
// Every call is synchronous on the caller's thread and takes no lock. The string functions are
// pure: they never normalise ("..", repeated inner slashes are kept) and never touch the file
// system, except absPath (current directory). Failures of the file operations are logged to the
// system log as "(pid) [err] path/path_util:line ...".
#ifndef TELOBACKUP_PATH_PATH_UTIL_H
#define TELOBACKUP_PATH_PATH_UTIL_H

#include <string>
#include <vector>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT Path {
  public:
    // ---- Algebra (no logging, no errno change, only std::bad_alloc thrown) ----

    // `a` and `b` joined with exactly one "/": trailing slashes of `a` and leading slashes of `b`
    // are dropped, then one leading "./" of `b` and a `b` of exactly "." are dropped.
    // A leading slash of `b` goes even when `a` is empty: join("", "/x") == "x";
    // join("/", "x") == "/x"; join("///", "") == "/"; join(".", "x") == "x"; join("a", "..") ==
    // "a/..".
    static std::string join(const std::string &a, const std::string &b);

    // Left fold of join: `c` is always joined (join(r, "") strips r's trailing slashes), `d` to
    // `g` only when non-empty. join("a/", "", "", "", "", "", "") == "a".
    static std::string join(const std::string &a, const std::string &b, const std::string &c,
                            const std::string &d = "", const std::string &e = "",
                            const std::string &f = "", const std::string &g = "");

    // Left fold of join over [first, last); "" for an empty range. A single element comes back
    // untouched, even "." or "a//".
    static std::string join(std::vector<std::string>::const_iterator first,
                            std::vector<std::string>::const_iterator last);

    // join over the whole vector.
    static std::string join(const std::vector<std::string> &parts);

    // Replaces `out` with the components of `path`, split at every single "/": an absolute
    // path's first component is "/", a trailing "/" stays on the last component, empty inner
    // components are kept. split("/a/b") == {"/", "a", "b"}; split("a/b/") == {"a", "b/"};
    // split("/") == {"/"}; split("") == {}. Always returns true.
    static bool split(const std::string &path, std::vector<std::string> &out);

    // The component at `index` of split(path), or "" when there is none. Index 0 is special:
    // "/" for an absolute path, otherwise the text before the first "/", or the text up to and
    // including it when only slashes follow: token("a//", 0) == "a/"; token("/a/b", 2) == "b".
    static std::string token(const std::string &path, unsigned int index);

    // The common leading components of `a` and `b`, joined; a trailing "/" of either last
    // component is ignored. common("/a/b/c", "/a/b/d") == "/a/b"; common("/x", "/y") == "/";
    // common("/", "/a") == "" (a lone "/" compares as empty).
    static std::string common(const std::string &a, const std::string &b);

    // `path` below `base`, or "" when `path` does not lie strictly below it.
    // relative("/a/b/c", "/a") == "b/c"; relative("/a/b", "/a/b") == ""; relative("/x", "/") ==
    // "x".
    static std::string relative(const std::string &path, const std::string &base);

    // POSIX basename of a copy of `path` (up to its first NUL byte): basename("/a/b/") == "b",
    // basename("/") == "/", basename("") == ".".
    static std::string basename(const std::string &path);

    // POSIX dirname of a copy of `path`: dirname("/a/b/") == "/a", dirname("a") == ".".
    static std::string dirname(const std::string &path);

    // `path` unchanged when it begins with "/", else join(current directory, path); "" (errno
    // from getcwd) when the current directory cannot be read. absPath("/x/../y") == "/x/../y".
    static std::string absPath(const std::string &path);

    // ---- Well-known locations ----

    // Target of /proc/self/exe (at most 4095 bytes), or "" with errno from readlink.
    static std::string getBinPath();

    // The application log path: TELO_LOGFILE when set (even to ""), else "Quarnix.log" in the
    // directory of the executable.
    static std::string getLogPath();

    // "/tmp/telobackup", the directory for inter-process files.
    static std::string getIpcTempPath();

    // Creates (if needed) "/tmp/telobackup" with mode 0755 and its sub-directory `name` with
    // `mode`, forcing both modes so that the umask cannot narrow them, and returns the
    // sub-directory's path. Links planted at either name are never followed, and an existing
    // entry that is not a directory owned by the caller or root is refused.
    // Failure: "" with errno set, after logging one of
    //   "bad %s name." (empty `name`, one holding "/", "." or ".."; errno EINVAL),
    //   "mkdir %s path failed. %m", "chmod %s path failed. %m" (ELOOP or ENOTDIR for a planted
    //   entry, EPERM for a directory owned by someone else).
    static std::string createIpcTempPath(const std::string &name, unsigned int mode);

    // Opens (creating with mode 0666 if needed) the lock file `name` in the "lock" sub-directory
    // of the IPC tree (mode 0770), read-write and close-on-exec, and returns the descriptor; the
    // caller owns it and takes any lock itself. A lock file this call creates gets 0666
    // whatever the umask, so that other users can lock it too; an existing one is left as it
    // is. `name` may hold "/" as long as it stays beneath the lock directory: a name that is
    // absolute or climbs out ("../x") fails with EXDEV, and a symbolic link anywhere in it
    // (planted at the name or at a directory on the way) with ELOOP; a directory (EISDIR) is
    // refused too, and so are other non-regular files (EINVAL) where users other than root may
    // add entries to the lock directory. The lock directory, once checked from the root, stays
    // open in the process (one close-on-exec descriptor, which the process must not close);
    // later calls check with one stat of its path that it is still that directory with its
    // owner and mode, and check the tree from the root again when not (a tree removed and made
    // anew, another /tmp).
    // Failure: -1 with errno set; only the failures of createIpcTempPath are logged.
    static int createIpcLockFile(const std::string &name);

    // ---- Replacing files ----

    // Moves `src` over `dst`. When `dst` exists, it keeps the replaced file's platform ACL, or,
    // without platform ACLs, its permission bits (set-id and sticky bits dropped) and owner;
    // those are given to `src` before the rename, so readers never see the new file with the
    // writer's mode or owner. A new `dst`, or one that is a symbolic link (replaced, not
    // followed), gets the mode it would have had if created under the current umask (0666 or
    // 0777 minus umask). A refused chmod (EPERM) is accepted on FAT and
    // foreign file systems (TELOGetFSType codes 0 and 5).
    // `src` is opened once, without following a link at its name, and every attribute is set
    // through that descriptor, never by path: just before the rename its name must still be
    // that file, and afterwards `dst` must be it, else the call fails with errno ESTALE, logged
    // as a failed rename (another process swapped a name).
    // Failure: false, errno from the failing call, `dst` unchanged unless the rename itself
    // succeeded. Logs "Failed to copy ACL from [%s] to [%s]", "rename failed, %m [%s]",
    // "rename failed %m [%s]", "rename failed %m, [%s]", "lstat failed, %m [%s]",
    // "lstat failed %m, [%s]", "chmod failed %m, [%s]", "chown failed %m, [%s]",
    // "invalid dirname, %m" or "reset acl inherit failed" for the step that failed; an lstat of
    // `dst` failing other than with ENOENT returns false without a line.
    // Reads the umask by setting it: not safe against another thread changing the umask.
    static bool renameWithMode(const std::string &src, const std::string &dst);

    // ---- Shares (implemented in path_telo; documented in telobackup/path/path_telo.h) ----

    // Name of the share holding the file-system path `path`, or "" after logging
    // "Error: getting share path of [%s] failed[0x%04X %s:%d]" with the platform error.
    static std::string getShareName(const std::string &path);

    // True when a component of `path` is exactly "@eaDir".
    static bool isInTeloEaDir(const std::string &path);
};

// Share-rooted paths ("/photos/2024/trip": the share "photos", then "2024/trip"), split by
// string rules alone: no file-system access, no logging, errno unchanged. Malformed input
// gives "".
class TELO_EXPORT ConfigPath {
  public:
    // The first component of a share-rooted path: shareName("/photos/2024") == "photos",
    // shareName("/photos") == "photos"; "" without a leading "/" and for "/" or "//x".
    static std::string shareName(const std::string &path);

    // Everything after the share's component, unchanged: shareRelativePath("/photos/2024/") ==
    // "2024/", shareRelativePath("/photos//x") == "/x"; "" without a leading "/", and for
    // "/photos" or "/photos/".
    static std::string shareRelativePath(const std::string &path);
};

// Removes `path` and everything below it, children before their directory, without following
// symbolic links and without leaving its mount: another file system mounted inside, or a
// directory bound there from elsewhere, is left alone with its mount point. Every level is
// opened relative to its parent's descriptor, so that a directory swapped for a link while the
// walk runs never leads it outside the tree; any depth is removed with at most 20 directory
// descriptors open. The walk goes on
// after a failure; the first failure other than ENOENT is logged ("rmdir %s failed. %m" or
// "unlink %s failed. %m") and reported: false with errno from it, except that a directory left
// non-empty reports EACCES. A missing `path` gives true. Each call keeps its own failure record.
TELO_EXPORT bool removeAll(const std::string &path);

}  // namespace Backup
}  // namespace TELO

#endif
