#include <cerrno>

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
    telo_platform::MountEntry mount;
    unsigned int error = telo_platform::mountHolding(path, mount);
    if (error != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL(error);
        return -1;
    }
    return telo_platform::fsTypeCode(mount.fsType);
}
