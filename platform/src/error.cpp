#include <cerrno>

#include "platform_error.h"
#include "telo/platform.h"

namespace {

struct LastError {
    unsigned int code = TELO_ERR_NONE;
    const char *file = "";
    int line = 0;
};

thread_local LastError lastError;

}  // namespace

namespace telo_platform {

void setError(unsigned int code, const char *file, int line) {
    lastError.code = code;
    lastError.file = file;
    lastError.line = line;
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

}  // extern "C"
