// The mount table of the generic server: /proc/self/mountinfo, or the file TELO_MOUNTINFO names.
#ifndef TELO_PLATFORM_SRC_MOUNT_TABLE_H
#define TELO_PLATFORM_SRC_MOUNT_TABLE_H

#include <string>
#include <vector>

namespace telo_platform {

struct MountEntry {
    std::string root;        // root of the mount within its file system
    std::string mountPoint;  // where it is mounted, octal escapes decoded
    std::string options;     // per-mount options ("rw,relatime")
    std::string fsType;      // "ext4", "tmpfs", ...
    std::string source;      // "/dev/sda1", "tmpfs", ...
    std::string superOptions;
    unsigned int major = 0;
    unsigned int minor = 0;
};

// Path of the mount table in use.
std::string mountTablePath();

// Reads the mount table in mount order. False with errno set when the file cannot be read;
// malformed lines are skipped.
bool readMountTable(std::vector<MountEntry> &entries);

// Parses one mountinfo line; false when it is malformed.
bool parseMountInfoLine(const std::string &line, MountEntry &entry);

// The entry whose mount point is the longest component-wise prefix of the absolute `path` (the
// last one in mount order among equals, as the later mount hides the earlier); null when none.
const MountEntry *findMountFor(const std::vector<MountEntry> &entries, const std::string &path);

// Finds the mount holding `path` after resolving it (realpath). Returns TELO_ERR_NONE and fills
// `mount`, or the error code to record: TELO_ERR_NOT_FOUND (the path does not resolve; errno
// from realpath), TELO_ERR_SYSTEM (the table cannot be read; errno set) or TELO_ERR_BAD_CONFIG
// (no entry covers the path; errno ENOENT).
unsigned int mountHolding(const char *path, MountEntry &mount);

// True when `prefix` is `path` or one of its leading components ("/a" holds "/a/b", not "/ab").
bool isComponentPrefix(const std::string &prefix, const std::string &path);

// TELOGetFSType code of a file-system type name.
int fsTypeCode(const std::string &fsType);

}  // namespace telo_platform

#endif
