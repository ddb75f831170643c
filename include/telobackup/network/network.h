// Which address of a host can be reached on a TCP port right now: the host is resolved with the
// platform's resolver, IPv4 addresses are preferred, and each address gets a non-blocking
// connect under a per-try and an overall time budget. Nothing is ever sent on a connection.
//
// Every call is synchronous on the caller's thread, keeps no state and takes no lock; it is
// safe from any thread as far as the platform's resolver is.
#ifndef TELOBACKUP_NETWORK_NETWORK_H
#define TELOBACKUP_NETWORK_NETWORK_H

#include <functional>
#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT Net {
  public:
    // Connects to `host` (a name or an IP literal; only the first address getaddrinfo gives is
    // used) on TCP `port`, waiting at most `timeoutSec` seconds; 0 polls once. The socket is
    // closed before returning.
    // Returns 0 when connected; -2 when nothing answered in time (logs "select() timeout");
    // -1 on a bad parameter (null host, port outside 0..65535, negative timeout), a refused or
    // reset connection, or any failed call. Failures are logged at LOG_ERR in the short form
    // "network/network:<line> <message>", for example "[10.0.0.9:873] connect() error, <%m>",
    // "Socket error: 111, Connection refused" followed by "[10.0.0.9:873] isn't connected",
    // or "bad parameter". A wait interrupted by a signal is restarted with the full timeout,
    // three waits at most ("select() error, Interrupted system call" after the third).
    // errno after a failure says why: the socket's error for a refused, reset or unreachable
    // connection (ECONNREFUSED, ECONNRESET, EHOSTUNREACH, ...), ETIMEDOUT for -2, EINVAL for a
    // bad parameter, ENOENT when getaddrinfo finds no address (EAGAIN for a temporary failure),
    // ENOTCONN when the socket is neither readable nor writable, else the failing call's own.
    static int testIpAndPortConnect(const char *host, int port, int timeoutSec);

    // `addr` itself when it is an IPv4 or IPv6 literal (not checked further); otherwise the
    // first address the platform resolves it to, IPv4 addresses before all others.
    // Failure: "" after logging "(pid) [err] network/network:<line> lookup[<addr>] failed:
    // [0x<code> <file>:<line>]" with the platform error.
    static std::string getIpFromAddr(const std::string &addr);

    // Tries the candidates of `addr` (itself when it is an IP literal, else its resolved
    // addresses, IPv4 first) in order with testIpAndPortConnect(candidate, port, timeoutSec),
    // and sets `ip` to the first that connects. After each failed try the whole seconds
    // elapsed are compared with `totalSec`; once they exceed it no other candidate is tried,
    // so the total time may pass the budget by one try.
    // Returns 0 on success; otherwise the last try's result (-1 or -2), -3 when the name
    // cannot be resolved (logged as by getIpFromAddr), -4 when the monotonic clock cannot be
    // read (logs "clock_gettime failed [<%m>]"). `ip` changes only on success. errno after a
    // failure is that of the last try (see testIpAndPortConnect), ENOENT after -3, the clock's
    // after -4, so strerror(errno) gives the reason:
    //     std::string ip;
    //     if (Net::getAvailableIp("backup.example.org", 873, 5, 20, ip) != 0)
    //         fprintf(stderr, "unreachable: %s\n", strerror(errno));  // "Connection refused"
    static int getAvailableIp(const std::string &addr, int port, int timeoutSec, int totalSec,
                              std::string &ip);

    // What getAvailableIp reports of each try, for a caller that shows its progress; either
    // member may be empty. Both are called on the caller's thread, inside the call.
    struct ProbeObserver {
        // Before a candidate address is tried.
        std::function<void(const std::string &address)> trying;
        // After the try: its result (0, -1 or -2 as testIpAndPortConnect gives them) and the
        // errno it left (ECONNREFUSED for a refused connection).
        std::function<void(const std::string &address, int result, int error)> tried;
    };

    // getAvailableIp(addr, port, timeoutSec, totalSec, ip) that tells `observer` of every try
    // it makes; results, logs and errno are the same.
    static int getAvailableIp(const std::string &addr, int port, int timeoutSec, int totalSec,
                              std::string &ip, const ProbeObserver &observer);

    // As above with a budget derived from `timeoutSec` and the number n of candidates: each
    // try gets timeoutSec / n seconds and the whole timeoutSec when that share exceeds 15
    // seconds; otherwise each try gets 15 seconds and the whole 15 * n. Three addresses and 30
    // seconds give 15 per try and 45 in all; one address and 60 seconds give 60 and 60.
    // A negative timeoutSec fails every try as a bad parameter.
    static int getAvailableIp(const std::string &addr, int port, int timeoutSec, std::string &ip);
};

}  // namespace Backup
}  // namespace TELO

#endif
