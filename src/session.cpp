#include "telobackup/session.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>

#include "internal/eintr.h"
#include "internal/fs_rules.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "telobackup/path/path_util.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace TELO {
namespace Backup {

using internal::UniqueFd;

namespace {

constexpr char kLogSource[] = "session";
constexpr char kLocalPrefix[] = "sess";
constexpr char kLinkPrefix[] = "seln";
constexpr char kLockName[] = "__sess__.lock";
constexpr char kTmpPrefix[] = "/tmp";
constexpr size_t kPrefixLength = sizeof(kLinkPrefix) - 1;
// Interface limit: a link target is read up to this many bytes, a longer one comes back cut.
constexpr size_t kLinkTargetLimit = 1024;

std::string sessionArea() {
    return Path::join(Path::getIpcTempPath(), "session");
}

bool isLinkId(const std::string &id) {
    return id.compare(0, kPrefixLength, kLinkPrefix) == 0;
}

// Names the link to `directory` under the session-area lock after its own name was taken:
// reserves a fresh "seln.XXXXXX" name, then swaps the reservation for the link.
bool createLinkUnderLock(const std::string &area, const std::string &directory, std::string &link) {
    ScopedTempFile reservation(Path::join(area, kLinkPrefix), true);
    if (!reservation.isValid()) {
        TELO_LOG_ERR("ScopedTempFile failed[%s]", Path::join(area, kLinkPrefix).c_str());
        return false;
    }
    std::string lockPath = Path::join(area, kLockName);
    UniqueFd lock(open(lockPath.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0400));
    if (!lock) {
        TELO_LOG_ERR("failed to open file[%s]", lockPath.c_str());
        return false;
    }
    if (internal::retryOnEintr([&] { return flock(lock.get(), LOCK_EX); }) != 0) {
        TELO_LOG_ERR("failed to flock[%s]", lockPath.c_str());
        return false;
    }
    std::string name = reservation.getPath();
    reservation.close();
    reservation.unlink();
    if (symlink(directory.c_str(), name.c_str()) != 0) {
        TELO_LOG_ERR("failed to create symlink[%s][%s]", directory.c_str(), name.c_str());
        return false;
    }
    if (flock(lock.get(), LOCK_UN) != 0) {
        TELO_LOG_ERR("failed to unlock flock[%s]", lockPath.c_str());
        return false;
    }
    link = name;
    return true;
}

// Makes a session directory for `target` (see Session::create) and gives back its id and path.
bool createSession(const std::string &target, std::string &id, std::string &path) {
    std::string area = Path::createIpcTempPath("session", 0700);
    if (area.empty()) {
        TELO_LOG_ERR("failed to create temp directory [%s]", sessionArea().c_str());
        return false;
    }
    // A plain prefix test, as documented: "/tmpfoo" counts as under /tmp too.
    bool onVolume = target.compare(0, sizeof(kTmpPrefix) - 1, kTmpPrefix) != 0;
    std::string templ = Path::join(onVolume ? target : area, onVolume ? kLinkPrefix : kLocalPrefix);
    ScopedTempFolder folder(templ);
    if (!folder.isValid()) {
        TELO_LOG_ERR("ScopedTempFolder failed[%s]", templ.c_str());
        return false;
    }
    std::string folderPath = folder.getPath();
    std::string newId = Path::basename(folderPath);
    if (onVolume) {
        std::string link = Path::join(area, newId);
        if (symlink(folderPath.c_str(), link.c_str()) != 0) {
            if (errno != EEXIST) {
                TELO_LOG_ERR("failed to create symlink[%s][%s]", folderPath.c_str(), link.c_str());
                return false;
            }
            if (!createLinkUnderLock(area, folderPath, link)) {
                TELO_LOG_ERR("failed to create_sesslink[%s]", folderPath.c_str());
                return false;
            }
            newId = Path::basename(link);
        }
    }
    id = newId;
    path = folder.preserve();
    return true;
}

// Removes the session `id` whose directory is `path` ("" skips the directory).
bool removeSession(const std::string &id, const std::string &path) {
    bool ok = true;
    if (!path.empty() && !removeAll(path)) {
        TELO_LOG_ERR("failed to remove session[%s]", path.c_str());
        ok = false;
    }
    if (isLinkId(id)) {
        std::string link = Path::join(sessionArea(), id);
        if (unlink(link.c_str()) != 0 && errno != ENOENT) {
            TELO_LOG_ERR("failed to unlink session link[%s]", link.c_str());
            ok = false;
        }
    }
    return ok;
}

}  // namespace

struct Session::Impl {
    std::string id;
    std::string path;
};

Session::Session() : d_(new Impl) {}

Session::~Session() = default;

// A moved-from object has no record; the calls that bind make a fresh one, the others read it as
// unbound.
Session::Session(Session &&other) noexcept = default;
Session &Session::operator=(Session &&other) noexcept = default;

Session::Impl &Session::record() {
    if (!d_) d_.reset(new Impl);
    return *d_;
}

bool Session::create() {
    Impl &s = record();
    if (!s.id.empty()) {
        TELO_LOG_ERR("session has already existed[%s][%s]", s.id.c_str(), s.path.c_str());
        return false;
    }
    return createSession(sessionArea(), s.id, s.path);
}

bool Session::create(std::shared_ptr<FilterVolume> filter) {
    Impl &s = record();
    if (!s.id.empty()) {
        TELO_LOG_ERR("session has already existed[%s][%s]", s.id.c_str(), s.path.c_str());
        return false;
    }
    std::string target;
    if (!VolumePathManager::getInstance().getVolumePath(filter, target)) {
        TELO_LOG_ERR("failed to getVolumePath()");
        target.clear();
    }
    return createSession(target, s.id, s.path);
}

bool Session::load(const std::string &id) {
    Impl &s = record();
    if (!s.id.empty()) {
        TELO_LOG_ERR("session has been loaded[%s][%s]", s.id.c_str(), s.path.c_str());
        return false;
    }
    if (id.empty()) return false;
    std::string path = getPathById(id);
    struct stat st;
    if (path.empty() || lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        TELO_LOG_ERR("failed to lstat session[%s]", path.c_str());
        return false;
    }
    if (access(path.c_str(), W_OK | X_OK) != 0) {
        TELO_LOG_ERR("failed to access session[%s]", path.c_str());
        return false;
    }
    if (utime(path.c_str(), nullptr) != 0) {
        TELO_LOG_ERR("failed to touch session[%s]", path.c_str());
        return false;
    }
    s.id = id;
    s.path = path;
    return true;
}

bool Session::destroy() {
    Impl &s = record();
    bool ok = removeSession(s.id, s.path);
    s.id.clear();
    s.path.clear();
    return ok;
}

bool Session::destroyById(const std::string &id) {
    if (id.empty()) {
        TELO_LOG_ERR("invalid parameter, empty session id");
        return false;
    }
    std::string path = getPathById(id);
    if (path.empty() && !internal::isPlainName(id)) {
        return false;
    }
    return removeSession(id, path);
}

std::string Session::getPathById(const std::string &id) {
    if (id.empty()) {
        TELO_LOG_ERR("invalid parameter, empty session id");
        return std::string();
    }
    if (!internal::isPlainName(id)) {
        errno = EINVAL;
        TELO_LOG_ERR("invalid session id[%s]", id.c_str());
        return std::string();
    }
    std::string path = Path::join(sessionArea(), id);
    if (!isLinkId(id)) return path;
    char target[kLinkTargetLimit + 1] = {};
    if (readlink(path.c_str(), target, kLinkTargetLimit) < 0) {
        if (errno != ENOENT) TELO_LOG_ERR("failed to read link[%s]", path.c_str());
        return std::string();
    }
    return target;
}

std::string Session::getId() const {
    return d_ ? d_->id : std::string();
}

std::string Session::getPath() const {
    return d_ ? d_->path : std::string();
}

}  // namespace Backup
}  // namespace TELO
