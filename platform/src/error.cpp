#include <cerrno>
#include <string>

#include "internal/errno_saver.h"
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
    TELO::Backup::internal::ErrnoSaver keep;  // a failing call's errno outlives its record
    lastError.code = code;
    lastError.file = file;
    lastError.line = line;
    lastError.detail = detail;
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
