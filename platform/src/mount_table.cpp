#include "mount_table.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "telo/platform.h"

namespace telo_platform {

namespace {

// The kernel escapes blank, tab, newline and backslash in mount paths as \ooo.
std::string decodeOctalEscapes(const std::string &field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
            field[i + 3] >= '0' && field[i + 3] <= '7') {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                     (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

std::vector<std::string> splitBlanks(const std::string &line) {
    std::vector<std::string> fields;
    size_t pos = 0;
    while (pos < line.size()) {
        size_t start = line.find_first_not_of(' ', pos);
        if (start == std::string::npos) break;
        size_t end = line.find(' ', start);
        if (end == std::string::npos) end = line.size();
        fields.push_back(line.substr(start, end - start));
        pos = end;
    }
    return fields;
}

}  // namespace

std::string mountTablePath() {
    const char *path = getenv("TELO_MOUNTINFO");
    return (path != nullptr && *path != '\0') ? path : "/proc/self/mountinfo";
}

bool parseMountInfoLine(const std::string &line, MountEntry &entry) {
    std::vector<std::string> fields = splitBlanks(line);
    // id parent major:minor root mountpoint options [optional...] - fstype source superoptions
    size_t separator = 6;
    while (separator < fields.size() && fields[separator] != "-") ++separator;
    if (fields.size() < 6 || separator + 2 >= fields.size()) return false;
    unsigned int major = 0, minor = 0;
    if (sscanf(fields[2].c_str(), "%u:%u", &major, &minor) != 2) return false;
    entry.major = major;
    entry.minor = minor;
    entry.root = decodeOctalEscapes(fields[3]);
    entry.mountPoint = decodeOctalEscapes(fields[4]);
    entry.options = fields[5];
    entry.fsType = fields[separator + 1];
    entry.source = decodeOctalEscapes(fields[separator + 2]);
    entry.superOptions = separator + 3 < fields.size() ? fields[separator + 3] : "";
    return !entry.mountPoint.empty() && entry.mountPoint[0] == '/';
}

bool readMountTable(std::vector<MountEntry> &entries) {
    entries.clear();
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(mountTablePath().c_str(), "re"), fclose);
    if (!file) return false;
    char *buffer = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = getline(&buffer, &capacity, file.get())) >= 0) {
        std::string line(buffer, static_cast<size_t>(length));
        if (!line.empty() && line.back() == '\n') line.pop_back();
        MountEntry entry;
        if (parseMountInfoLine(line, entry)) entries.push_back(std::move(entry));
    }
    int readError = ferror(file.get()) ? errno : 0;
    free(buffer);
    if (readError != 0) {
        errno = readError;
        return false;
    }
    return true;
}

bool isComponentPrefix(const std::string &prefix, const std::string &path) {
    if (prefix == "/") return !path.empty() && path[0] == '/';
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    return path.size() == prefix.size() || path[prefix.size()] == '/';
}

const MountEntry *findMountFor(const std::vector<MountEntry> &entries, const std::string &path) {
    const MountEntry *best = nullptr;
    for (const MountEntry &entry : entries) {
        if (!isComponentPrefix(entry.mountPoint, path)) continue;
        if (best == nullptr || entry.mountPoint.size() >= best->mountPoint.size()) best = &entry;
    }
    return best;
}

unsigned int mountHolding(const char *path, MountEntry &mount) {
    std::unique_ptr<char, void (*)(void *)> real(realpath(path, nullptr), free);
    if (!real) return TELO_ERR_NOT_FOUND;
    std::vector<MountEntry> entries;
    if (!readMountTable(entries)) return TELO_ERR_SYSTEM;
    const MountEntry *found = findMountFor(entries, real.get());
    if (found == nullptr) {
        errno = ENOENT;
        return TELO_ERR_BAD_CONFIG;
    }
    mount = *found;
    return TELO_ERR_NONE;
}

int fsTypeCode(const std::string &fsType) {
    static const struct {
        const char *name;
        int code;
    } kTypes[] = {
        {"vfat", TELO_FS_FAT},     {"msdos", TELO_FS_FAT},     {"fat", TELO_FS_FAT},
        {"ext2", TELO_FS_EXT3},    {"ext3", TELO_FS_EXT3},     {"ext4", TELO_FS_EXT4},
        {"btrfs", TELO_FS_BTRFS},  {"xfs", TELO_FS_XFS},       {"exfat", TELO_FS_FOREIGN},
        {"ntfs", TELO_FS_FOREIGN}, {"ntfs3", TELO_FS_FOREIGN}, {"fuseblk", TELO_FS_FOREIGN},
        {"nfs", TELO_FS_NETWORK},  {"nfs4", TELO_FS_NETWORK},  {"cifs", TELO_FS_NETWORK},
        {"smb3", TELO_FS_NETWORK}, {"smbfs", TELO_FS_NETWORK},
    };
    for (const auto &type : kTypes) {
        if (fsType == type.name) return type.code;
    }
    return TELO_FS_OTHER;
}

}  // namespace telo_platform
