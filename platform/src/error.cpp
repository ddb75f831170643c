#include <cerrno>
#include <string>

#include "platform_error.h"
#include "telo/platform.h"

namespace {

struct LastError {
    unsigned int code = TELO_ERR_NONE;
    const char *file = "";
    int line = 0;
    std::string detail;
};

thread_local LastError lastError;

}  // namespace

namespace telo_platform {

void setError(unsigned int code, const char *file, int line, const std::string &detail) {
    int saved = errno;
    lastError.code = code;
    lastError.file = file;
    lastError.line = line;
    lastError.detail = detail;
    errno = saved;
}

}  // namespace telo_platform

extern "C" {

unsigned int TLIBCErrGet(void) {
    return lastError.code;
}

const char *TLIBCErrorGetFile(void) {
    return lastError.file;
}

int TLIBCErrorGetLine(void) {
    return lastError.line;
}

const char *TLIBCErrorGetDetail(void) {
    return lastError.detail.c_str();
}

}  // extern "C"
