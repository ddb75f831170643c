// The mount table of the generic server: /proc/self/mountinfo, or the file TELO_MOUNTINFO names,
// read through libmount.
#ifndef TELO_PLATFORM_SRC_MOUNT_TABLE_H
#define TELO_PLATFORM_SRC_MOUNT_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace telo_platform {

struct MountEntry {
    int id = 0;              // mount id; 0 in tables without ids (the /proc/mounts form)
    int parentId = 0;        // id of the mount this one sits on
    unsigned int major = 0;  // device of the file system; 0:0 when the table has none
    unsigned int minor = 0;
    std::string root;          // root of the mount within its file system ("/" for the whole)
    std::string mountPoint;    // where it is mounted, escapes decoded
    std::string options;       // per-mount options ("rw,relatime")
    std::string fsType;        // "ext4", "tmpfs", ...
    std::string source;        // "/dev/sda1", "tmpfs", ...
    std::string superOptions;  // options of the file system ("rw,errors=remount-ro")
};

// The largest mount table read, in bytes.
constexpr size_t kMaxMountTableBytes = 16 * 1024 * 1024;

// Path of the mount table in use.
std::string mountTablePath();

// Parses mount table text (the mountinfo form, or the fstab-like form of /proc/mounts) in table
// order. Lines libmount cannot parse and entries whose mount point is not absolute are skipped.
// False with errno set only when libmount itself fails (ENOMEM).
bool parseMountTable(const std::string &content, std::vector<MountEntry> &entries);

// Reads and parses the mount table in use. The file must be a regular file (a /proc file
// included) of at most kMaxMountTableBytes. False with errno set and `detail` naming the file and
// the reason when it cannot be read.
bool readMountTable(std::vector<MountEntry> &entries, std::string &detail);

// For each entry, whether a later mount hides it: one stacked on the same point, or one on a
// parent of its mount point (which hides everything mounted below it). Tables with mount ids are
// read as the kernel's tree (their order need not be mount order); tables without ids by order.
std::vector<bool> hiddenMounts(const std::vector<MountEntry> &entries);

// The visible entry whose mount point is the longest component-wise prefix of the absolute
// `path`; null when none.
const MountEntry *findMountFor(const std::vector<MountEntry> &entries,
                               const std::vector<bool> &hidden, const std::string &path);

// Finds the visible mount holding `path` after resolving it (realpath), from the table in
// `entries` (read here). Returns TELO_ERR_NONE and sets `mount` (an index into entries), or the
// error code to record with `detail`: TELO_ERR_NOT_FOUND (the path does not resolve; errno from
// realpath), TELO_ERR_SYSTEM or TELO_ERR_BAD_CONFIG (the table cannot be read; errno set) or
// TELO_ERR_BAD_CONFIG (no entry covers the path; errno ENOENT).
unsigned int mountHolding(const char *path, std::vector<MountEntry> &entries,
                          std::vector<bool> &hidden, size_t &mount, std::string &detail);

// True when `prefix` is `path` or one of its leading components ("/a" holds "/a/b", not "/ab").
bool isComponentPrefix(const std::string &prefix, const std::string &path);

// TELOGetFSType code of a file-system type name.
int fsTypeCode(const std::string &fsType);

// The platform error code for a configuration file that could not be read with `error`:
// TELO_ERR_BAD_CONFIG when it is not a file to read as configuration (EINVAL, EISDIR, EFBIG),
// else TELO_ERR_SYSTEM.
unsigned int fileErrorCode(int error);

}  // namespace telo_platform

#endif
