#include "internal/access_attributes.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal/fs_rules.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

constexpr char kAclName[] = "system.posix_acl_access";
constexpr char kUserPrefix[] = "user.";

// The calls on a descriptor; one without file operations (O_PATH) is reached through /proc.
std::string procPath(int fd) {
    char path[kProcFdPathSize];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    return path;
}

ssize_t listHeld(int fd, char *buffer, size_t size) {
    ssize_t got = flistxattr(fd, buffer, size);
    if (got >= 0 || errno != EBADF) return got;
    return listxattr(procPath(fd).c_str(), buffer, size);
}

ssize_t getHeld(int fd, const char *name, char *buffer, size_t size) {
    ssize_t got = fgetxattr(fd, name, buffer, size);
    if (got >= 0 || errno != EBADF) return got;
    return getxattr(procPath(fd).c_str(), name, buffer, size);
}

int setHeld(int fd, const ExtendedAttribute &attribute) {
    const std::string &v = attribute.value;
    if (fsetxattr(fd, attribute.name.c_str(), v.data(), v.size(), 0) == 0) return 0;
    if (errno != EBADF) return -1;
    return setxattr(procPath(fd).c_str(), attribute.name.c_str(), v.data(), v.size(), 0);
}

bool notCarried(int error) {
    return error == ENOTSUP || error == EOPNOTSUPP;
}

// Reads a variable-sized answer: asks for the size, then for the data, again if it grew.
template <typename Call>
bool readSized(std::string &out, Call call) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        ssize_t size = call(nullptr, 0);
        if (size < 0) return false;
        out.resize(static_cast<size_t>(size));
        if (size == 0) return true;
        ssize_t got = call(&out[0], out.size());
        if (got >= 0) {
            out.resize(static_cast<size_t>(got));
            return true;
        }
        if (errno != ERANGE) return false;
    }
    errno = ERANGE;
    return false;
}

}  // namespace

bool readAccessAttributes(int fd, AccessAttributes &out) {
    out = AccessAttributes();
    std::string names;
    if (!readSized(names, [fd](char *buffer, size_t size) { return listHeld(fd, buffer, size); })) {
        return notCarried(errno);
    }
    for (size_t at = 0, end; at < names.size(); at = end + 1) {
        end = names.find('\0', at);
        if (end == std::string::npos) end = names.size();
        std::string name(names, at, end - at);
        bool isAcl = name == kAclName;
        if (!isAcl && name.compare(0, strlen(kUserPrefix), kUserPrefix) != 0) continue;
        std::string value;
        if (!readSized(value, [fd, &name](char *buffer, size_t size) {
                return getHeld(fd, name.c_str(), buffer, size);
            })) {
            // Removed since it was listed, or a user attribute of a file the caller may write
            // but not read: nothing it could keep.
            if (errno == ENODATA || (!isAcl && errno == EACCES)) continue;
            return false;
        }
        if (isAcl) {
            out.hasAcl = true;
            out.acl = std::move(value);
        } else {
            out.user.push_back({std::move(name), std::move(value)});
        }
    }
    return true;
}

bool writeUserAttributes(int fd, const AccessAttributes &attributes) {
    for (const ExtendedAttribute &attribute : attributes.user) {
        if (setHeld(fd, attribute) != 0) return false;
    }
    return true;
}

bool writeAcl(int fd, const AccessAttributes &attributes) {
    if (attributes.hasAcl) return setHeld(fd, {kAclName, attributes.acl}) == 0;
    // One inherited from the directory's default ACL goes: the permission bits say it all.
    if (fremovexattr(fd, kAclName) == 0) return true;
    if (errno == EBADF && removexattr(procPath(fd).c_str(), kAclName) == 0) return true;
    return errno == ENODATA || notCarried(errno);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
