#include "support/fake_platform.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fakeplatform {

namespace {

// The source file the fake records in the error triple.
constexpr char kFakeFile[] = "fake_platform.cpp";

struct ErrorTriple {
    unsigned int code = TELO_ERR_NONE;
    const char *file = "";
    int line = 0;
};

thread_local ErrorTriple lastError;

struct FunctionState {
    int calls = 0;
    bool fail = false;
    unsigned int errorCode = TELO_ERR_NONE;  // recorded when failing
};

std::map<std::string, FunctionState> &states() {
    static auto *map = new std::map<std::string, FunctionState>;
    return *map;
}

// Records `code` as the failure of the fake at `line` and returns `result`.
template <typename T>
T failWith(unsigned int code, int line, T result) {
    lastError = {code, kFakeFile, line};
    return result;
}

// Counts the call; when the function is switched to fail, records the error triple and
// returns true.
bool enter(const char *name, int line) {
    FunctionState &s = states()[name];
    ++s.calls;
    return s.fail ? failWith(s.errorCode, line, true) : false;
}

}  // namespace

int calls(const std::string &name) {
    return states()[name].calls;
}

void setFail(const std::string &name, unsigned int errorCode) {
    states()[name].fail = true;
    states()[name].errorCode = errorCode;
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
using fakeplatform::failWith;
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

// ---- String encryption: hex of each byte XOR 0x5A, so tests can read and forge it ----------

int TLIBCCryptSzEncrypt(const char *plain, char *out, size_t outSize) {
    if (enter("TLIBCCryptSzEncrypt", __LINE__)) return 0;
    size_t length = strlen(plain);
    if (outSize < (length + 2) * 2) return 0;
    for (size_t i = 0; i < length; ++i) {
        snprintf(out + 2 * i, 3, "%02x", static_cast<unsigned char>(plain[i]) ^ 0x5A);
    }
    out[2 * length] = '\0';
    return 1;
}

int TLIBCCryptSzDecrypt(const char *cipher, char *out, size_t outSize) {
    if (enter("TLIBCCryptSzDecrypt", __LINE__)) return 0;
    size_t length = strlen(cipher);
    unsigned int byte = 0;
    for (size_t i = 0; i < length / 2 && length / 2 < outSize; ++i) {
        if (sscanf(cipher + 2 * i, "%2x", &byte) != 1 || (byte ^ 0x5A) == 0) break;
        out[i] = static_cast<char>(byte ^ 0x5A);
        if (i + 1 == length / 2 && length % 2 == 0) return (out[i + 1] = '\0', 1);
    }
    return failWith(TELO_ERR_CRYPTO, __LINE__, 0);
}

// ---- Volumes ----------------------------------------------------------------------------------

int TELOVolumeSupportLocGet(void) {
    if (enter("TELOVolumeSupportLocGet", __LINE__)) return 0;
    return outcomes().volumeLocation;
}

TELOVOLInfo *TELOMountVolAllEnum(int, int, int) {
    if (enter("TELOMountVolAllEnum", __LINE__)) return nullptr;
    const std::vector<fakeplatform::Volume> &volumes = outcomes().volumes;
    if (volumes.empty()) return failWith<TELOVOLInfo *>(TELO_ERR_NOT_FOUND, __LINE__, nullptr);
    TELOVOLInfo *head = nullptr;  // built from the last volume back, so it lists them in order
    for (auto volume = volumes.rbegin(); volume != volumes.rend(); ++volume) {
        auto *record = static_cast<TELOVOLInfo *>(calloc(1, sizeof(TELOVOLInfo)));
        snprintf(record->volPath, sizeof(record->volPath), "%s", volume->path.c_str());
        record->fsType = volume->fsType;
        record->freeBytes = volume->freeBytes;
        record->mounted = volume->mounted;
        record->usable = volume->usable;
        record->next = head;
        head = record;
    }
    return head;
}

int TELOMountVolInfoGet(const char *path, TELOVOLInfo *info) {
    if (enter("TELOMountVolInfoGet", __LINE__)) return -1;
    auto it = outcomes().volumeOfPath.find(path);
    if (it == outcomes().volumeOfPath.end()) return failWith(TELO_ERR_NOT_FOUND, __LINE__, -1);
    snprintf(info->volPath, sizeof(info->volPath), "%s", it->second.c_str());
    info->mounted = 1;
    info->usable = 1;
    info->next = nullptr;
    return 0;
}

void TELOMountVolInfoFree(TELOVOLInfo *list) {
    enter("TELOMountVolInfoFree", __LINE__);
    while (list != nullptr) {
        TELOVOLInfo *next = list->next;
        free(list);
        list = next;
    }
}

int TELOShareTmpPathGet(const char *volPath, char *buf, int size) {
    if (enter("TELOShareTmpPathGet", __LINE__)) return -1;
    auto it = outcomes().shareTmpPaths.find(volPath);
    bool chosen = it != outcomes().shareTmpPaths.end();
    std::string path = chosen ? it->second : std::string(volPath) + "/.telobackup-tmp";
    snprintf(buf, static_cast<size_t>(size), "%s", path.c_str());
    return 0;
}

// ---- Shares and name lookup ----

int TELOShareNamePathGet(const char *, char *name, int nameSize, char *sharePath,
                         int sharePathSize) {
    if (enter("TELOShareNamePathGet", __LINE__)) return -1;
    snprintf(name, static_cast<size_t>(nameSize), "%s", outcomes().shareName.c_str());
    snprintf(sharePath, static_cast<size_t>(sharePathSize), "%s", outcomes().sharePath.c_str());
    return 0;
}

int TELONetLookupIP(const char *, char (*entries)[TELO_IP_TEXT_SIZE], int capacity, int) {
    if (enter("TELONetLookupIP", __LINE__)) return -1;
    const std::vector<std::string> &found = outcomes().lookupAddresses;
    if (found.empty()) return failWith(TELO_ERR_LOOKUP, __LINE__, -1);
    int count = 0;
    for (; count < capacity && count < static_cast<int>(found.size()); ++count) {
        snprintf(entries[count], TELO_IP_TEXT_SIZE, "%s", found[count].c_str());
    }
    return count;
}

static bool parses(int family, const char *addr) {
    unsigned char buffer[sizeof(in6_addr)];
    return addr != nullptr && inet_pton(family, addr, buffer) == 1;
}

int BlTLIBIsIpAddr(const char *addr) {
    enter("BlTLIBIsIpAddr", __LINE__);
    return parses(AF_INET, addr) ? 1 : parses(AF_INET6, addr) ? 2 : 0;
}

int BlTLIBIsv6IpAddrValid(const char *addr) {
    enter("BlTLIBIsv6IpAddrValid", __LINE__);
    return parses(AF_INET6, addr) ? 1 : 0;
}

// ---- Processes ----

// A real fork unless switched to fail, which fails as an exhausted process table would.
pid_t TLIBCProcFork(void) {
    if (!enter("TLIBCProcFork", __LINE__)) return fork();
    errno = EAGAIN;
    return -1;
}

}  // extern "C"
