#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "mount_table.h"
#include "platform_error.h"
#include "telo/platform.h"

namespace {
constexpr char kPlatformFile[] = "src/fs_type.cpp";
}

extern "C" int TELOGetFSType(const char *path, int /*flags*/) {
    if (path == nullptr || *path == '\0') {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    std::unique_ptr<char, void (*)(void *)> real(realpath(path, nullptr), free);
    if (!real) {
        TELO_PLATFORM_FAIL(TELO_ERR_NOT_FOUND);
        return -1;
    }
    std::vector<telo_platform::MountEntry> entries;
    if (!telo_platform::readMountTable(entries)) {
        TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
        return -1;
    }
    const telo_platform::MountEntry *mount = telo_platform::findMountFor(entries, real.get());
    if (mount == nullptr) {
        errno = ENOENT;
        TELO_PLATFORM_FAIL(TELO_ERR_BAD_CONFIG);
        return -1;
    }
    return telo_platform::fsTypeCode(mount->fsType);
}
