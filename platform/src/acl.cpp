// A generic Linux server has no platform ACLs: POSIX permission bits and owners are all there is,
// and the util library handles those itself.
#include <cerrno>

#include "platform_error.h"
#include "telo/platform.h"

namespace {
constexpr char kPlatformFile[] = "src/acl.cpp";

int unsupported(int line) {
    errno = ENOTSUP;
    telo_platform::setError(TELO_ERR_NOT_SUPPORTED, kPlatformFile, line);
    return -1;
}
}  // namespace

extern "C" {

int TELOACLIsSupport(const char *, int, int) {
    return 0;
}

int TELOACLCopy(const char *, const char *) {
    return unsupported(__LINE__);
}

int TELOACLArchiveCopy(const char *, const char *) {
    return unsupported(__LINE__);
}

int TELOACLResetInherit(const char *) {
    return unsupported(__LINE__);
}

}  // extern "C"
