#include "support/temp_dir.h"

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace testsupport {

namespace {

// Removes a tree, restoring write and search permission on directories first.
void forceRemoveTree(const std::string &path) {
    if (path.empty() || !exists(path)) return;
    nftw(
        path.c_str(),
        [](const char *entry, const struct stat *st, int type, struct FTW *) {
            if (type == FTW_D || type == FTW_DNR) chmod(entry, (st->st_mode & 07777) | 0700);
            return 0;
        },
        16, FTW_PHYS);
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

}  // namespace

TempDir::TempDir() {
    const char *base = getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/telotest.XXXXXX";
    if (mkdtemp(&path_[0]) == nullptr) ADD_FAILURE() << "mkdtemp failed: " << strerror(errno);
}

TempDir::~TempDir() {
    forceRemoveTree(path_);
}

std::string TempDir::file(const std::string &name) const {
    return path_ + "/" + name;
}

void writeFile(const std::string &path, const std::string &content, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0 || write(fd, content.data(), content.size()) != ssize_t(content.size())) {
        ADD_FAILURE() << "write " << path << ": " << strerror(errno);
    }
    if (fd >= 0) fchmod(fd, mode);
    if (fd >= 0) close(fd);
}

void makeDir(const std::string &path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0 || chmod(path.c_str(), mode) != 0) {
        ADD_FAILURE() << "mkdir " << path << ": " << strerror(errno);
    }
}

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) ADD_FAILURE() << "cannot read " << path;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDir(const std::string &path) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(path, error), end; it != end; it.increment(error)) {
        names.push_back(it->path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

int fileMode(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return -1;
    return static_cast<int>(st.st_mode & 07777);
}

std::string aclGrantingRead(uid_t uid) {
    // Little-endian header (version 2) and entries of tag, permissions and id, sorted by tag.
    struct Entry {
        uint16_t tag, perm;
        uint32_t id;
    };
    const uint32_t none = ~0u, version = 2;
    const Entry entries[] = {
        {0x01, 6, none}, {0x02, 4, uid}, {0x04, 4, none}, {0x10, 4, none}, {0x20, 0, none}};
    std::string blob(reinterpret_cast<const char *>(&version), sizeof(version));
    blob.append(reinterpret_cast<const char *>(entries), sizeof(entries));
    return blob;
}

bool attributeOf(const std::string &path, const std::string &name, std::string &value) {
    char buffer[65536];
    ssize_t size = lgetxattr(path.c_str(), name.c_str(), buffer, sizeof(buffer));
    if (size >= 0) value.assign(buffer, static_cast<size_t>(size));
    return size >= 0;
}

std::string describeTree(const std::string &path) {
    std::vector<std::string> lines;
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
        std::string relative = pending.back();
        pending.pop_back();
        std::string full = relative.empty() ? path : path + "/" + relative;
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) continue;
        std::ostringstream line;
        line << (relative.empty() ? "." : relative) << " " << std::oct << (st.st_mode & 0177777)
             << std::dec << " " << st.st_uid << ":" << st.st_gid;
        if (S_ISREG(st.st_mode)) {
            line << " " << readFile(full);
        } else if (S_ISLNK(st.st_mode)) {
            char target[4096] = {};
            line << " -> " << std::string(target, readlink(full.c_str(), target, sizeof(target)));
        } else if (S_ISDIR(st.st_mode)) {
            for (const std::string &name : listDir(full)) {
                pending.push_back(relative.empty() ? name : relative + "/" + name);
            }
        }
        lines.push_back(line.str());
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    return text;
}

void makeDeepTree(const std::string &root, int levels) {
    int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; fd >= 0; ++i) {
        int file = openat(fd, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (file >= 0) close(file);
        if (i == levels) break;
        int next =
            mkdirat(fd, "d", 0755) == 0 ? openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
        close(fd);
        fd = next;
    }
    if (fd < 0)
        ADD_FAILURE() << "cannot make a tree of " << levels << " levels: " << strerror(errno);
    if (fd >= 0) close(fd);
}

}  // namespace testsupport
