// Name resolution and address classification of the generic server.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform_error.h"
#include "telo/platform.h"

namespace {
constexpr char kPlatformFile[] = "src/net.cpp";
}

extern "C" int TELONetLookupIP(const char *host, char (*entries)[TELO_IP_TEXT_SIZE], int capacity,
                               int /*flags*/) {
    if (host == nullptr || *host == '\0' || entries == nullptr || capacity < 1) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address, not one per socket type
    addrinfo *found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0) {
        TELO_PLATFORM_FAIL(TELO_ERR_LOOKUP);
        return -1;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> owner(found, freeaddrinfo);
    int count = 0;
    for (const addrinfo *ai = found; ai != nullptr && count < capacity; ai = ai->ai_next) {
        char text[NI_MAXHOST];
        if (getnameinfo(ai->ai_addr, ai->ai_addrlen, text, sizeof(text), nullptr, 0,
                        NI_NUMERICHOST) != 0 ||
            strlen(text) >= TELO_IP_TEXT_SIZE) {
            continue;
        }
        bool seen = false;
        for (int i = 0; i < count && !seen; ++i) seen = strcmp(entries[i], text) == 0;
        if (!seen) strcpy(entries[count++], text);
    }
    if (count == 0) {
        TELO_PLATFORM_FAIL(TELO_ERR_LOOKUP);
        return -1;
    }
    return count;
}

extern "C" int BlTLIBIsIpAddr(const char *addr) {
    unsigned char buffer[sizeof(in6_addr)];
    if (addr == nullptr) return 0;
    if (inet_pton(AF_INET, addr, buffer) == 1) return 1;
    return inet_pton(AF_INET6, addr, buffer) == 1 ? 2 : 0;
}

extern "C" int BlTLIBIsv6IpAddrValid(const char *addr) {
    unsigned char buffer[sizeof(in6_addr)];
    return addr != nullptr && inet_pton(AF_INET6, addr, buffer) == 1 ? 1 : 0;
}
