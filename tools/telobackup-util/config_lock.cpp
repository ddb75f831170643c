// The writers' lock of the config commands, a bounded wait for it, and the words for every way
// the IPC tree, a lock, a link or the secret key can stand in the way.
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "cli.h"
#include "telo/platform.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"
#include "telobackup/stringf.h"

namespace telocli {

namespace {

using Clock = std::chrono::steady_clock;
using TELO::Backup::Path;
using TELO::Backup::stringf;

// How long a wait goes on before the holder is named.
constexpr std::chrono::seconds kNoticeAfter(2);

std::string ownerText(uid_t uid, gid_t gid) {
    struct passwd *user = getpwuid(uid);
    std::string text = user != nullptr ? user->pw_name : std::to_string(uid);
    struct group *group = getgrgid(gid);
    return text + ":" + (group != nullptr ? group->gr_name : std::to_string(gid));
}

std::string lockDirectory() {
    return Path::join(Path::getIpcTempPath(), "lock");
}

// The process holding a flock on the file of `fd`, from /proc/locks: "process 12 (name)", or "".
std::string lockHolder(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return std::string();
    std::ifstream locks("/proc/locks");
    std::string line;
    while (std::getline(locks, line)) {
        // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; waiters carry "->" after the number.
        std::istringstream fields(line);
        std::string number, type, kind, access, device;
        long pid = 0;
        if (!(fields >> number >> type) || type == "->" || type != "FLOCK") continue;
        if (!(fields >> kind >> access >> pid >> device) || pid <= 0 || pid == getpid()) continue;
        unsigned int major = 0, minor = 0;
        unsigned long inode = 0;
        if (sscanf(device.c_str(), "%x:%x:%lu", &major, &minor, &inode) != 3) continue;
        if (major != major(st.st_dev) || minor != minor(st.st_dev) || inode != st.st_ino) continue;
        std::string name;
        std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
        std::getline(comm, name);
        return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
    }
    return std::string();
}

void onAlarm(int) {}

// Interrupts a blocking call when `after` has passed, and every 50 ms after that, so that an
// alarm that fires before the call blocks is not lost.
void armAlarm(Clock::duration after) {
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(after).count();
    if (micros < 1) micros = 1;
    struct itimerval timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(micros / 1000000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    timer.it_interval.tv_usec = 50000;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void disarmAlarm() {
    struct itimerval timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// Waits for flock(LOCK_EX) on `fd`, at most `waitSeconds` when not negative; names the holder
// once after 2 s. 0 when locked, ETIMEDOUT when the time ran out, else the failing errno.
int waitForLock(int fd, const std::string &token, double waitSeconds) {
    struct sigaction action = {}, saved;
    action.sa_handler = onAlarm;  // no SA_RESTART: the alarm ends the blocking flock
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved);
    const Clock::time_point start = Clock::now();
    const bool bounded = waitSeconds >= 0;
    const Clock::time_point deadline =
        start + std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(bounded ? waitSeconds : 0));
    bool noticed = false;
    int failure = ETIMEDOUT;
    for (;;) {
        Clock::time_point now = Clock::now();
        if (!noticed && now >= start + kNoticeAfter) {
            std::string holder = lockHolder(fd);
            printNotice("waiting for the configuration lock " + token + ", held by " +
                        (holder.empty() ? "another process" : holder));
            noticed = true;
        }
        if (bounded && now >= deadline) {
            failure = ETIMEDOUT;
            break;
        }
        if (!noticed && (!bounded || start + kNoticeAfter < deadline)) {
            armAlarm(start + kNoticeAfter - now);
        } else if (bounded) {
            armAlarm(deadline - now);
        }
        failure = flock(fd, LOCK_EX) == 0 ? 0 : errno;
        disarmAlarm();
        if (failure != EINTR) break;
    }
    sigaction(SIGALRM, &saved, nullptr);
    return failure;
}

// Why `path`, a directory of the IPC tree that should have `mode`, cannot serve the caller, who
// must search it and, with `write`, make entries in it; "" when nothing is wrong with it or it
// does not exist yet.
std::string directoryProblem(const std::string &path, unsigned int mode, bool write) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT ? std::string() : path + ": " + strerror(errno);
    }
    if (S_ISLNK(st.st_mode)) return path + " is a symbolic link (expected a directory): remove it";
    if (!S_ISDIR(st.st_mode)) return path + " is not a directory: remove it";
    uid_t me = geteuid();
    if (st.st_uid != 0 && st.st_uid != me) {
        return stringf("%s is owned by uid %u (expected root or you): remove it", path.c_str(),
                       static_cast<unsigned>(st.st_uid));
    }
    unsigned int actual = st.st_mode & 07777;
    std::string owner = ownerText(st.st_uid, st.st_gid);
    if (actual != mode && st.st_uid != me && me != 0) {
        return stringf("%s is mode %04o %s (expected %04o): run as root", path.c_str(), actual,
                       owner.c_str(), mode);
    }
    if (access(path.c_str(), write ? W_OK | X_OK : X_OK) != 0) {
        bool groupMay = (actual & 030) == 030;
        return stringf("%s is mode %04o %s: run as root%s", path.c_str(), actual, owner.c_str(),
                       groupMay ? " or as a member of its group" : "");
    }
    return std::string();
}

// The words for why the lock of `token` could not be opened (errno `error`).
std::string lockProblem(const std::string &token, int error) {
    std::string problem = ipcTreeProblem("lock", 0770);
    if (!problem.empty()) return problem;
    std::string path = Path::join(lockDirectory(), token);
    struct stat st;
    bool present = lstat(path.c_str(), &st) == 0;
    switch (error) {
        case EXDEV:
            return "lock token '" + token + "' leads out of " + lockDirectory();
        case ELOOP:
            if (present && S_ISLNK(st.st_mode)) return path + " is a symbolic link: remove it";
            return "lock token '" + token + "' passes a symbolic link in " + lockDirectory();
        case EISDIR:
        case EINVAL:
            return path + " is not a regular file: remove it";
        case EACCES:
            if (present) {
                return stringf("%s is mode %04o %s: run as root or as its owner", path.c_str(),
                               st.st_mode & 07777, ownerText(st.st_uid, st.st_gid).c_str());
            }
            break;
        case ENOENT:
            return "lock token '" + token + "': " + Path::dirname(path) + " does not exist";
        default:
            break;
    }
    return "cannot open " + path + ": " + strerror(error);
}

// The symbolic link on the way to `file` that the library would not follow, described; "".
std::string untrustedLink(const std::string &file) {
    for (size_t end = file.find('/', 1);; end = file.find('/', end + 1)) {
        std::string prefix = file.substr(0, end);
        struct stat link, target;
        if (lstat(prefix.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && link.st_uid != 0 &&
            link.st_uid != geteuid() &&
            (stat(prefix.c_str(), &target) != 0 || target.st_uid != link.st_uid)) {
            return stringf(
                "%s is a symbolic link of uid %u; only links of root, of you or of "
                "their target's owner are followed",
                prefix.c_str(), static_cast<unsigned>(link.st_uid));
        }
        if (end == std::string::npos) return std::string();
    }
}

}  // namespace

std::string ipcTreeProblem(const std::string &name, unsigned int mode) {
    std::string sub = Path::join(Path::getIpcTempPath(), name);
    struct stat st;
    bool made = lstat(sub.c_str(), &st) == 0;
    std::string problem = directoryProblem(Path::getIpcTempPath(), 0755, !made);
    if (problem.empty()) problem = directoryProblem(sub, mode, true);
    return problem;
}

CommandError fileError(int code, const std::string &what, const std::string &file) {
    if (errno == EPERM) {
        std::string link = untrustedLink(file);
        if (!link.empty()) return CommandError(code, what + ": not followed: " + link);
    }
    return systemError(code, what);
}

std::string secretKeyPath() {
    const char *configured = getenv("TELO_SECRET_KEY_FILE");
    return configured != nullptr && *configured != '\0' ? configured : "/etc/telobackup/secret.key";
}

std::string keyProblem() {
    std::string key = secretKeyPath();
    switch (TLIBCErrGet()) {
        case TELO_ERR_NO_KEY:
            return "there is no secret key " + key + " (was it moved?)";
        case TELO_ERR_KEY_NOT_FILE:
            return key + " is not a regular file (a symbolic link?): refused";
        case TELO_ERR_KEY_OWNER:
            return key + " belongs to another user: refused";
        case TELO_ERR_KEY_MODE:
            return key + " may be read or written by others: refused (chmod 600 it)";
        case TELO_ERR_CRYPTO:
            return "it was made under another key, or changed";
        case TELO_ERR_SYSTEM:
            return "the system's random source or the crypto library failed";
        default:
            return "cannot use the secret key " + key + " (see the system log)";
    }
}

ConfigLock::ConfigLock(const std::string &token, double waitSeconds, const std::string &file)
    : token_(token) {
    int fd = Path::createIpcLockFile(token);
    if (fd < 0) {
        throw CommandError(kExitLockFailed,
                           "cannot take the configuration lock: " + lockProblem(token, errno));
    }
    int failure = flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
    if (failure == EWOULDBLOCK) {
        failure = waitSeconds != 0 ? waitForLock(fd, token, waitSeconds) : ETIMEDOUT;
    }
    if (failure == 0) {
        fd_ = fd;
        holdSignals();
        TELO::Backup::SectionConfig::removeStaleTemporaries(file);
        return;
    }
    std::string holder = failure == ETIMEDOUT ? lockHolder(fd) : std::string();
    close(fd);
    if (failure != ETIMEDOUT) {
        errno = failure;
        throw systemError(kExitLockFailed, "cannot take the configuration lock " + token);
    }
    throw CommandError(kExitLockFailed,
                       stringf("the configuration lock %s is still held", token.c_str()) +
                           (holder.empty() ? "" : " by " + holder) +
                           stringf(" after %g s (--wait)", waitSeconds));
}

ConfigLock::~ConfigLock() {
    if (fd_ >= 0) close(fd_);
    letSignalsIn();
}

void ConfigLock::release() {
    int fd = fd_;
    fd_ = -1;
    bool unlocked = flock(fd, LOCK_UN) == 0;
    int error = errno;
    close(fd);
    letSignalsIn();
    errno = error;
    if (!unlocked) throw systemError(kExitLockFailed, "cannot release the lock " + token_);
}

void ConfigLock::holdSignals() {
    sigset_t ending;
    sigemptyset(&ending);
    for (int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ending, number);
    signalsHeld_ = sigprocmask(SIG_BLOCK, &ending, &savedMask_) == 0;
}

// A signal that came meanwhile ends the tool here, with nothing of the rewrite left behind.
void ConfigLock::letSignalsIn() {
    if (!signalsHeld_) return;
    signalsHeld_ = false;
    int saved = errno;
    sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    errno = saved;
}

}  // namespace telocli
