// Shares of the generic server: the administrator's shares file, or else Samba's disk shares;
// the share holding a path is the one whose resolved path is its longest component-wise prefix.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "config_file.h"
#include "internal/errno_saver.h"
#include "mount_table.h"
#include "platform_error.h"
#include "share_config.h"
#include "telo/platform.h"

namespace {

constexpr char kPlatformFile[] = "src/share.cpp";

using telo_platform::Share;

std::string configuredFile(const char *variable, const char *fallback) {
    const char *value = getenv(variable);
    return value != nullptr && *value != '\0' ? value : fallback;
}

// `path` made absolute and resolved: its longest existing leading part through realpath, the
// rest with "." and ".." applied as text (so "/srv/photos/../docs/x" is "/srv/docs/x" whether
// or not it exists). Empty when the working directory cannot be found for a relative path.
std::string resolvePath(const std::string &path) {
    std::string absolute = path;
    if (path[0] != '/') {
        std::unique_ptr<char, void (*)(void *)> cwd(getcwd(nullptr, 0), free);
        if (!cwd) return std::string();
        absolute = std::string(cwd.get()) + "/" + path;
    }
    std::vector<std::string> parts;
    for (size_t pos = 0; pos < absolute.size();) {
        size_t end = absolute.find('/', pos);
        if (end == std::string::npos) end = absolute.size();
        if (end > pos && absolute.compare(pos, end - pos, ".") != 0) {
            parts.push_back(absolute.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    for (size_t existing = parts.size();; --existing) {
        std::string prefix;
        for (size_t i = 0; i < existing; ++i) prefix += "/" + parts[i];
        std::unique_ptr<char, void (*)(void *)> real(
            realpath(prefix.empty() ? "/" : prefix.c_str(), nullptr), free);
        if (!real && existing > 0) continue;
        std::string resolved = real ? real.get() : "/";
        for (size_t i = existing; i < parts.size(); ++i) {
            if (parts[i] == "..") {
                size_t slash = resolved.rfind('/');
                resolved.resize(slash == 0 ? 1 : slash);
            } else {
                if (resolved.back() != '/') resolved += '/';
                resolved += parts[i];
            }
        }
        return resolved;
    }
}

// The shares in force: the shares file's, or when it is missing or defines none, Samba's.
// TELO_ERR_NONE, or the error to record with errno set and `detail` saying what failed.
unsigned int configuredShares(std::vector<Share> &shares, std::string &detail) {
    std::string sharesFile = configuredFile("TELO_SHARES_CONF", "/etc/telobackup/shares.conf");
    std::string smbFile = configuredFile("TELO_SMB_CONF", "/etc/samba/smb.conf");
    std::string content;
    bool sharesFileExists = telo_platform::readShareFile(sharesFile, content);
    if (sharesFileExists) {
        if (telo_platform::parseSharesFile(content, shares)) return TELO_ERR_NONE;
    } else if (errno != ENOENT) {
        TELO::Backup::internal::ErrnoSaver keep;
        detail = "shares file " + sharesFile + ": " +
                 telo_platform::configFileError(keep.value(), telo_platform::kMaxShareFileBytes);
        return telo_platform::fileErrorCode(keep.value());
    }
    telo_platform::SambaConfig samba;
    unsigned int code = samba.load(smbFile);
    if (code == TELO_ERR_NONE) {
        shares = samba.shares();
        return TELO_ERR_NONE;
    }
    TELO::Backup::internal::ErrnoSaver keep;  // building the detail must not change it
    if (keep.value() != ENOENT) {
        detail = "Samba configuration " + samba.detail();
    } else if (sharesFileExists) {
        detail = "no share configuration: " + sharesFile + " defines no share and " + smbFile +
                 " does not exist";
    } else {
        detail = "no share configuration: neither " + sharesFile + " nor " + smbFile + " exists";
    }
    return code;
}

}  // namespace

extern "C" int TELOShareNamePathGet(const char *path, char *name, int nameSize, char *sharePath,
                                    int sharePathSize) {
    if (path == nullptr || *path == '\0' || strlen(path) >= PATH_MAX || name == nullptr ||
        nameSize <= 0 || sharePath == nullptr || sharePathSize <= 0) {
        errno =
            path != nullptr && *path != '\0' && strlen(path) >= PATH_MAX ? ENAMETOOLONG : EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    std::string resolved = resolvePath(path);
    if (resolved.empty()) {
        TELO_PLATFORM_FAIL_DETAIL(TELO_ERR_SYSTEM,
                                  std::string("working directory: ") + strerror(errno));
        return -1;
    }
    std::vector<Share> shares;
    std::string detail;
    unsigned int code = configuredShares(shares, detail);
    if (code != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL_DETAIL(code, detail);
        return -1;
    }
    const Share *best = nullptr;
    std::string bestPath;
    for (const Share &share : shares) {
        std::string shareRoot = resolvePath(share.path);
        if (!telo_platform::isComponentPrefix(shareRoot, resolved)) continue;
        if (best == nullptr || shareRoot.size() > bestPath.size()) {
            best = &share;
            bestPath = shareRoot;
        }
    }
    if (best == nullptr) {
        errno = ENOENT;
        TELO_PLATFORM_FAIL_DETAIL(TELO_ERR_NOT_FOUND, resolved + ": in no share");
        return -1;
    }
    if (best->name.size() + 1 > static_cast<size_t>(nameSize) ||
        bestPath.size() + 1 > static_cast<size_t>(sharePathSize)) {
        errno = ERANGE;
        TELO_PLATFORM_FAIL(TELO_ERR_BUFFER_SMALL);
        return -1;
    }
    memcpy(name, best->name.c_str(), best->name.size() + 1);
    memcpy(sharePath, bestPath.c_str(), bestPath.size() + 1);
    return 0;
}
