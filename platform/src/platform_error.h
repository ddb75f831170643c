// Recording of the calling thread's last platform error.
#ifndef TELO_PLATFORM_SRC_PLATFORM_ERROR_H
#define TELO_PLATFORM_SRC_PLATFORM_ERROR_H

#include <string>

namespace telo_platform {

// Records (code, file, line) as the calling thread's last platform error, with `detail` as the
// text of TLIBCErrorGetDetail; errno is kept.
void setError(unsigned int code, const char *file, int line, const std::string &detail = "");

}  // namespace telo_platform

// Records `code` at the current line of the file whose kPlatformFile is in scope, without or with
// a detail text.
#define TELO_PLATFORM_FAIL(code) ::telo_platform::setError((code), kPlatformFile, __LINE__)
#define TELO_PLATFORM_FAIL_DETAIL(code, detail) \
    ::telo_platform::setError((code), kPlatformFile, __LINE__, (detail))

#endif
