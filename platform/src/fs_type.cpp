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
    std::vector<telo_platform::MountEntry> entries;
    std::vector<bool> hidden;
    size_t mount = 0;
    std::string detail;
    unsigned int error = telo_platform::mountHolding(path, entries, hidden, mount, detail);
    if (error != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL_DETAIL(error, detail);
        return -1;
    }
    return telo_platform::fsTypeCode(entries[mount].fsType);
}
