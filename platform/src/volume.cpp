// Volumes of a generic server: the disk file systems of the mount table.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "mount_table.h"
#include "platform_error.h"
#include "telo/platform.h"

namespace {

constexpr char kPlatformFile[] = "src/volume.cpp";
constexpr int kDiskLocation = 1;
constexpr char kTmpDirName[] = ".telobackup-tmp";

// Disk file systems whose source need not be a block device.
const char *const kDiskTypesWithoutDevice[] = {"zfs", "btrfs", "fuseblk"};
// Read-only images and virtual block devices that never hold application data.
const char *const kNeverVolumes[] = {"squashfs", "iso9660", "udf", "erofs", "cramfs"};

bool inList(const std::string &value, const char *const *list, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (value == list[i]) return true;
    }
    return false;
}

bool hasOption(const std::string &options, const char *option) {
    size_t length = strlen(option);
    for (size_t pos = 0; pos <= options.size();) {
        size_t end = options.find(',', pos);
        if (end == std::string::npos) end = options.size();
        if (end - pos == length && options.compare(pos, length, option) == 0) return true;
        pos = end + 1;
    }
    return false;
}

// A mount is a volume when it is a disk file system mounted on a directory: a known disk type
// or a block-device source, and not a read-only image, a network or pseudo file system.
bool isVolume(const telo_platform::MountEntry &entry) {
    if (inList(entry.fsType, kNeverVolumes, sizeof(kNeverVolumes) / sizeof(*kNeverVolumes))) {
        return false;
    }
    int code = telo_platform::fsTypeCode(entry.fsType);
    bool disk = (code >= TELO_FS_FAT && code <= TELO_FS_FOREIGN) ||
                entry.source.compare(0, 5, "/dev/") == 0 ||
                inList(entry.fsType, kDiskTypesWithoutDevice,
                       sizeof(kDiskTypesWithoutDevice) / sizeof(*kDiskTypesWithoutDevice));
    if (!disk || code == TELO_FS_NETWORK) return false;
    struct stat st;
    // Bind mounts of single files (and mount points that vanished) are not volumes.
    return stat(entry.mountPoint.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void fillRecord(const telo_platform::MountEntry &entry, TELOVOLInfo &info) {
    memset(&info, 0, sizeof(info));
    snprintf(info.volPath, sizeof(info.volPath), "%s", entry.mountPoint.c_str());
    info.fsType = telo_platform::fsTypeCode(entry.fsType);
    info.mounted = 1;
    struct statvfs vfs;
    bool statOk = statvfs(entry.mountPoint.c_str(), &vfs) == 0;
    if (statOk) info.freeBytes = static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize;
    bool readOnly = hasOption(entry.options, "ro") || hasOption(entry.superOptions, "ro") ||
                    (statOk && (vfs.f_flag & ST_RDONLY) != 0);
    info.usable = statOk && !readOnly ? 1 : 0;
}

// The volumes of the mount table, one per mount point (the visible, last mounted one), in
// mount order. False with the error recorded when the table cannot be read.
bool listVolumes(std::vector<const telo_platform::MountEntry *> &volumes,
                 std::vector<telo_platform::MountEntry> &entries) {
    if (!telo_platform::readMountTable(entries)) {
        TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
        return false;
    }
    volumes.clear();
    for (size_t i = 0; i < entries.size(); ++i) {
        bool hidden = false;
        for (size_t later = i + 1; later < entries.size() && !hidden; ++later) {
            hidden = entries[later].mountPoint == entries[i].mountPoint;
        }
        if (!hidden && isVolume(entries[i])) volumes.push_back(&entries[i]);
    }
    return true;
}

}  // namespace

extern "C" {

int TELOVolumeSupportLocGet(void) {
    std::vector<telo_platform::MountEntry> entries;
    std::vector<const telo_platform::MountEntry *> volumes;
    if (!listVolumes(volumes, entries)) return 0;
    return volumes.empty() ? 0 : kDiskLocation;
}

TELOVOLInfo *TELOMountVolAllEnum(int /*flags*/, int location, int /*mode*/) {
    if (location != kDiskLocation) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_NOT_FOUND);
        return nullptr;
    }
    std::vector<telo_platform::MountEntry> entries;
    std::vector<const telo_platform::MountEntry *> volumes;
    if (!listVolumes(volumes, entries)) return nullptr;
    if (volumes.empty()) {
        errno = ENOENT;
        TELO_PLATFORM_FAIL(TELO_ERR_NOT_FOUND);
        return nullptr;
    }
    TELOVOLInfo *head = nullptr;
    TELOVOLInfo **tail = &head;
    for (const telo_platform::MountEntry *entry : volumes) {
        auto *record = static_cast<TELOVOLInfo *>(calloc(1, sizeof(TELOVOLInfo)));
        if (record == nullptr) {
            TELOMountVolInfoFree(head);
            errno = ENOMEM;
            TELO_PLATFORM_FAIL(TELO_ERR_NO_MEMORY);
            return nullptr;
        }
        fillRecord(*entry, *record);
        *tail = record;
        tail = &record->next;
    }
    return head;
}

int TELOMountVolInfoGet(const char *path, TELOVOLInfo *info) {
    if (path == nullptr || *path == '\0' || info == nullptr) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    telo_platform::MountEntry mount;
    unsigned int error = telo_platform::mountHolding(path, mount);
    if (error == TELO_ERR_NONE && !isVolume(mount)) {
        errno = ENOENT;
        error = TELO_ERR_NOT_FOUND;
    }
    // A path no mount covers is on no volume either.
    if (error == TELO_ERR_BAD_CONFIG) error = TELO_ERR_NOT_FOUND;
    if (error != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL(error);
        return -1;
    }
    fillRecord(mount, *info);
    info->next = nullptr;
    return 0;
}

void TELOMountVolInfoFree(TELOVOLInfo *list) {
    while (list != nullptr) {
        TELOVOLInfo *next = list->next;
        free(list);
        list = next;
    }
}

int TELOShareTmpPathGet(const char *volPath, char *buf, int size) {
    if (volPath == nullptr || volPath[0] != '/' || buf == nullptr || size <= 0) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    std::string dir = volPath;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    dir += dir == "/" ? kTmpDirName : std::string("/") + kTmpDirName;
    if (dir.size() + 1 > static_cast<size_t>(size)) {
        errno = ENAMETOOLONG;
        TELO_PLATFORM_FAIL(TELO_ERR_BUFFER_SMALL);
        return -1;
    }
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) {
        if (errno != ENOENT || access(volPath, W_OK) != 0) {
            TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
            return -1;
        }
        if (mkdir(dir.c_str(), 01777) == 0) {
            // Shared by every user of the volume, like /tmp: world-writable and sticky, whatever
            // the umask made of it. Opened without following links, so only what we made is
            // changed.
            int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd < 0 || fchmod(fd, 01777) != 0) {
                int saved = errno;
                if (fd >= 0) close(fd);
                errno = saved;
                TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
                return -1;
            }
            close(fd);
        } else if (errno != EEXIST) {
            TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
            return -1;
        }
        if (lstat(dir.c_str(), &st) != 0) {
            TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
            return -1;
        }
    }
    // A link or a file planted at the name is never used.
    if (!S_ISDIR(st.st_mode)) {
        errno = S_ISLNK(st.st_mode) ? ELOOP : ENOTDIR;
        TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
        return -1;
    }
    memcpy(buf, dir.c_str(), dir.size() + 1);
    return 0;
}

}  // extern "C"
