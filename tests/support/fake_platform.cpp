#include "support/fake_platform.h"

#include <unistd.h>

#include <cerrno>
#include <map>

namespace fakeplatform {

namespace {

struct ErrorTriple {
    unsigned int code = TELO_ERR_NONE;
    const char *file = "";
    int line = 0;
};

thread_local ErrorTriple lastError;

std::map<std::string, FunctionState> &states() {
    static auto *map = new std::map<std::string, FunctionState>;
    return *map;
}

// Counts the call; when the function is switched to fail, records the error triple and
// returns true.
bool enter(const char *name, int line) {
    FunctionState &s = state(name);
    ++s.calls;
    if (!s.fail) return false;
    lastError = {s.errorCode, kFakeFile, line};
    return true;
}

}  // namespace

FunctionState &state(const std::string &name) {
    return states()[name];
}

int calls(const std::string &name) {
    return state(name).calls;
}

void setFail(const std::string &name, bool fail, unsigned int errorCode) {
    FunctionState &s = state(name);
    s.fail = fail;
    s.errorCode = errorCode;
}

Outcomes &outcomes() {
    static auto *current = new Outcomes;
    return *current;
}

void reset() {
    states().clear();
    outcomes() = Outcomes();
    lastError = ErrorTriple();
}

}  // namespace fakeplatform

using fakeplatform::enter;
using fakeplatform::outcomes;

extern "C" {

unsigned int TLIBCErrGet(void) {
    return fakeplatform::lastError.code;
}
const char *TLIBCErrorGetFile(void) {
    return fakeplatform::lastError.file;
}
int TLIBCErrorGetLine(void) {
    return fakeplatform::lastError.line;
}

int TELOGetFSType(const char *, int) {
    if (enter("TELOGetFSType", __LINE__)) return -1;
    return outcomes().fsType;
}

int TELOACLIsSupport(const char *, int, int) {
    if (enter("TELOACLIsSupport", __LINE__)) return 0;
    return outcomes().aclSupport;
}

int TELOACLCopy(const char *, const char *) {
    return enter("TELOACLCopy", __LINE__) ? -1 : 0;
}

int TELOACLArchiveCopy(const char *, const char *) {
    return enter("TELOACLArchiveCopy", __LINE__) ? -1 : 0;
}

int TELOACLResetInherit(const char *) {
    return enter("TELOACLResetInherit", __LINE__) ? -1 : 0;
}

// ---- Processes ----

// A real fork unless switched to fail, which fails as an exhausted process table would.
pid_t TLIBCProcFork(void) {
    if (enter("TLIBCProcFork", __LINE__)) {
        errno = EAGAIN;
        return -1;
    }
    return fork();
}

}  // extern "C"
