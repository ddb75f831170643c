#include "volume_rules.h"

#include <algorithm>
#include <map>
#include <utility>

#include "telo/platform.h"

namespace telo_platform {

namespace {

// Disk file systems whose source need not be a block device.
const char *const kDiskTypesWithoutDevice[] = {"zfs", "btrfs", "fuseblk"};
// Read-only images and virtual block devices that never hold application data.
const char *const kNeverVolumes[] = {"squashfs", "iso9660", "udf", "erofs", "cramfs"};
constexpr unsigned int kLoopMajor = 7;

template <size_t N>
bool inList(const std::string &value, const char *const (&list)[N]) {
    for (const char *item : list) {
        if (value == item) return true;
    }
    return false;
}

// Mounts of one file system share a device; tables without devices name it by its source.
std::pair<std::string, std::string> fileSystemKey(const MountEntry &entry) {
    if (entry.major != 0 || entry.minor != 0) {
        return {std::to_string(entry.major) + ":" + std::to_string(entry.minor), ""};
    }
    return {"", entry.source};
}

}  // namespace

bool sameFileSystem(const MountEntry &a, const MountEntry &b) {
    return fileSystemKey(a) == fileSystemKey(b);
}

namespace {

// True when `a` represents its file system better than `b`.
bool betterRepresentative(const MountEntry &a, const MountEntry &b) {
    bool aRoot = a.root == "/", bRoot = b.root == "/";
    if (aRoot != bRoot) return aRoot;
    return a.mountPoint.size() < b.mountPoint.size();
}

}  // namespace

bool isDiskMount(const MountEntry &entry) {
    if (inList(entry.fsType, kNeverVolumes)) return false;
    int code = fsTypeCode(entry.fsType);
    bool blockSource = entry.source.compare(0, 5, "/dev/") == 0;
    bool disk = (code >= TELO_FS_FAT && code <= TELO_FS_FOREIGN) || blockSource ||
                inList(entry.fsType, kDiskTypesWithoutDevice);
    if (!disk || code == TELO_FS_NETWORK) return false;
    if (entry.major == kLoopMajor || entry.source.compare(0, 9, "/dev/loop") == 0) return false;
    bool efiPoint = entry.mountPoint == "/boot/efi" || entry.mountPoint == "/efi";
    return !(code == TELO_FS_FAT && efiPoint);
}

std::vector<size_t> selectVolumes(const std::vector<MountEntry> &entries,
                                  const std::vector<bool> &hidden,
                                  const std::function<bool(const std::string &)> &isDirectory) {
    std::map<std::pair<std::string, std::string>, size_t> best;
    for (size_t i = 0; i < entries.size(); ++i) {
        const MountEntry &entry = entries[i];
        if (hidden[i] || !isDiskMount(entry) || !isDirectory(entry.mountPoint)) continue;
        auto found = best.emplace(fileSystemKey(entry), i);
        if (!found.second && betterRepresentative(entry, entries[found.first->second])) {
            found.first->second = i;
        }
    }
    std::vector<size_t> volumes;
    for (const auto &chosen : best) volumes.push_back(chosen.second);
    std::sort(volumes.begin(), volumes.end());
    return volumes;
}

}  // namespace telo_platform
