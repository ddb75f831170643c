// Recording of the calling thread's last platform error.
#ifndef TELO_PLATFORM_SRC_PLATFORM_ERROR_H
#define TELO_PLATFORM_SRC_PLATFORM_ERROR_H

namespace telo_platform {

// Records (code, file, line) as the calling thread's last platform error; errno is kept.
void setError(unsigned int code, const char *file, int line);

}  // namespace telo_platform

// Records `code` at the current line of the file whose kPlatformFile is in scope.
#define TELO_PLATFORM_FAIL(code) ::telo_platform::setError((code), kPlatformFile, __LINE__)

#endif
