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

#include "internal/unique_fd.h"
#include "mount_table.h"
#include "platform_error.h"
#include "telo/platform.h"
#include "volume_rules.h"

namespace {

constexpr char kPlatformFile[] = "src/volume.cpp";
constexpr char kTmpDirName[] = ".telobackup-tmp";

using telo_platform::MountEntry;

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

// Bind mounts of single files (and mount points that vanished) are not volumes.
bool isDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void fillRecord(const MountEntry &entry, TELOVOLInfo &info) {
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

// The volumes of the mount table as indexes into `entries`, in table order. False with the
// error recorded when the table cannot be read.
bool listVolumes(std::vector<size_t> &volumes, std::vector<MountEntry> &entries) {
    std::string detail;
    if (!telo_platform::readMountTable(entries, detail)) {
        TELO_PLATFORM_FAIL_DETAIL(telo_platform::fileErrorCode(errno), detail);
        return false;
    }
    volumes =
        telo_platform::selectVolumes(entries, telo_platform::hiddenMounts(entries), isDirectory);
    return true;
}

}  // namespace

extern "C" {

int TELOVolumeSupportLocGet(void) {
    std::vector<MountEntry> entries;
    std::vector<size_t> volumes;
    if (!listVolumes(volumes, entries)) return 0;
    return volumes.empty() ? 0 : TELO_VOL_LOCATION_DISK;
}

TELOVOLInfo *TELOMountVolAllEnum(int /*flags*/, int location, int /*mode*/) {
    if (location != TELO_VOL_LOCATION_DISK) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_NOT_FOUND);
        return nullptr;
    }
    std::vector<MountEntry> entries;
    std::vector<size_t> volumes;
    if (!listVolumes(volumes, entries)) return nullptr;
    if (volumes.empty()) {
        errno = ENOENT;
        TELO_PLATFORM_FAIL_DETAIL(
            TELO_ERR_NOT_FOUND,
            "mount table " + telo_platform::mountTablePath() + " lists no volume");
        return nullptr;
    }
    TELOVOLInfo *head = nullptr;
    TELOVOLInfo **tail = &head;
    for (size_t volume : volumes) {
        auto *record = static_cast<TELOVOLInfo *>(calloc(1, sizeof(TELOVOLInfo)));
        if (record == nullptr) {
            TELOMountVolInfoFree(head);
            errno = ENOMEM;
            TELO_PLATFORM_FAIL(TELO_ERR_NO_MEMORY);
            return nullptr;
        }
        fillRecord(entries[volume], *record);
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
    std::vector<MountEntry> entries;
    std::vector<bool> hidden;
    size_t mount = 0;
    std::string detail;
    unsigned int error = telo_platform::mountHolding(path, entries, hidden, mount, detail);
    // A path no mount covers is on no volume either.
    if (error == TELO_ERR_BAD_CONFIG && errno == ENOENT) error = TELO_ERR_NOT_FOUND;
    if (error != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL_DETAIL(error, detail);
        return -1;
    }
    // The volume is the one chosen for the file system of the mount holding the path, which
    // may be another mount of it (the path lies on a bind mount or a btrfs subvolume).
    std::vector<size_t> volumes = telo_platform::selectVolumes(entries, hidden, isDirectory);
    const MountEntry &holder = entries[mount];
    for (size_t volume : volumes) {
        const MountEntry &candidate = entries[volume];
        if (volume == mount || (telo_platform::sameFileSystem(candidate, holder) &&
                                telo_platform::isDiskMount(holder))) {
            fillRecord(candidate, *info);
            info->next = nullptr;
            return 0;
        }
    }
    errno = ENOENT;
    TELO_PLATFORM_FAIL_DETAIL(TELO_ERR_NOT_FOUND,
                              holder.mountPoint + " (" + holder.fsType + ") is not a volume");
    return -1;
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
            TELO::Backup::internal::UniqueFd fd(
                open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!fd || fchmod(fd.get(), 01777) != 0) {
                TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
                return -1;
            }
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
