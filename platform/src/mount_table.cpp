#include "mount_table.h"

#include <libmount.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "config_file.h"
#include "internal/errno_saver.h"
#include "internal/unique_owners.h"
#include "telo/platform.h"

namespace telo_platform {

namespace {

std::string text(const char *value) {
    return value != nullptr ? value : "";
}

struct TableDeleter {
    void operator()(libmnt_table *table) const { mnt_unref_table(table); }
};
struct IterDeleter {
    void operator()(libmnt_iter *iter) const { mnt_free_iter(iter); }
};

// Orders paths so that everything below a path follows it directly: "/" sorts before every
// other byte ("/a", "/a/b", "/a b").
bool pathBefore(const std::string &a, const std::string &b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        if (a[i] == b[i]) continue;
        if (a[i] == '/') return true;
        if (b[i] == '/') return false;
        return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[i]);
    }
    return a.size() < b.size();
}

// Marks the entries of `group` that another entry of the group covers: one on the same mount
// point later in the table, or one on a parent of the mount point (when `parentCoversAlways`,
// whatever its place in the table, else only a later one).
void markCovered(const std::vector<MountEntry> &entries, std::vector<size_t> group,
                 bool parentCoversAlways, std::vector<bool> &covered) {
    std::stable_sort(group.begin(), group.end(), [&](size_t a, size_t b) {
        return pathBefore(entries[a].mountPoint, entries[b].mountPoint);
    });
    // The mount points on the stack are component prefixes of one another, each with the
    // largest table index among its own run and those below it on the stack.
    struct Level {
        const std::string *point;
        size_t lastIndex;
    };
    std::vector<Level> stack;
    for (size_t i = 0; i < group.size();) {
        const std::string &point = entries[group[i]].mountPoint;
        size_t end = i;
        while (end < group.size() && entries[group[end]].mountPoint == point) ++end;
        while (!stack.empty() && !isComponentPrefix(*stack.back().point, point)) stack.pop_back();
        size_t runLast = *std::max_element(group.begin() + i, group.begin() + end);
        size_t parentLast = stack.empty() ? 0 : stack.back().lastIndex;
        for (size_t k = i; k < end; ++k) {
            size_t index = group[k];
            bool byParent = !stack.empty() && (parentCoversAlways || parentLast > index);
            if (byParent || runLast > index) covered[index] = true;
        }
        stack.push_back({&point, std::max(runLast, parentLast)});
        i = end;
    }
}

}  // namespace

std::string mountTablePath() {
    const char *path = getenv("TELO_MOUNTINFO");
    return (path != nullptr && *path != '\0') ? path : "/proc/self/mountinfo";
}

bool parseMountTable(const std::string &content, std::vector<MountEntry> &entries) {
    entries.clear();
    if (content.empty()) return true;
    std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
    std::unique_ptr<libmnt_iter, IterDeleter> iter(mnt_new_iter(MNT_ITER_FORWARD));
    // fmemopen reads a copy, so the caller's text is never written to.
    std::string copy = content;
    TELO::Backup::internal::UniqueFile stream(fmemopen(&copy[0], copy.size(), "r"));
    if (!table || !iter || !stream) {
        errno = ENOMEM;
        return false;
    }
    // Lines that do not parse are skipped (libmount's default); only a failure of its own counts.
    int rc = mnt_table_parse_stream(table.get(), stream.get(), mountTablePath().c_str());
    if (rc < 0 && rc != -EINVAL) {
        errno = -rc;
        return false;
    }
    libmnt_fs *fs = nullptr;
    while (mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) {
        MountEntry entry;
        entry.mountPoint = text(mnt_fs_get_target(fs));
        // Paths the kernel could not hand to a system call are no mount points of ours.
        if (entry.mountPoint.empty() || entry.mountPoint[0] != '/' ||
            entry.mountPoint.size() >= PATH_MAX) {
            continue;
        }
        while (entry.mountPoint.size() > 1 && entry.mountPoint.back() == '/') {
            entry.mountPoint.pop_back();
        }
        entry.id = mnt_fs_get_id(fs);
        entry.parentId = mnt_fs_get_parent_id(fs);
        dev_t device = mnt_fs_get_devno(fs);
        entry.major = major(device);
        entry.minor = minor(device);
        entry.root = text(mnt_fs_get_root(fs));
        entry.options = text(mnt_fs_get_vfs_options(fs));
        entry.fsType = text(mnt_fs_get_fstype(fs));
        entry.source = text(mnt_fs_get_source(fs));
        entry.superOptions = text(mnt_fs_get_fs_options(fs));
        entries.push_back(std::move(entry));
    }
    return true;
}

bool readMountTable(std::vector<MountEntry> &entries, std::string &detail) {
    entries.clear();
    std::string path = mountTablePath(), content;
    if (!readConfigFile(path, kMaxMountTableBytes, FileKind::kRegularOrProc, content) ||
        !parseMountTable(content, entries)) {
        TELO::Backup::internal::ErrnoSaver keep;
        detail = "mount table " + path + ": " + configFileError(keep.value(), kMaxMountTableBytes);
        return false;
    }
    return true;
}

std::vector<bool> hiddenMounts(const std::vector<MountEntry> &entries) {
    std::vector<bool> hidden(entries.size(), false);
    bool haveIds =
        std::any_of(entries.begin(), entries.end(), [](const MountEntry &e) { return e.id != 0; });
    std::vector<size_t> all(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) all[i] = i;
    if (!haveIds) {
        markCovered(entries, all, false, hidden);
        return hidden;
    }
    // As a tree: a mount is hidden when one is stacked on it (it is overmounted), or when it is
    // obscured: a sibling sits on its mount point or a parent of it (the sibling came later, or
    // this one would hang below it), or the mount it sits on is obscured, or overmounted by
    // another mount than this one.
    std::map<int, std::vector<size_t>> siblings;
    std::map<int, size_t> byId;
    std::multimap<std::pair<int, std::string>, size_t> byParentAndPoint;
    for (size_t i = 0; i < entries.size(); ++i) {
        siblings[entries[i].parentId].push_back(i);
        byId.emplace(entries[i].id, i);
        byParentAndPoint.emplace(std::make_pair(entries[i].parentId, entries[i].mountPoint), i);
    }
    std::vector<bool> obscured(entries.size(), false), overmounted(entries.size(), false);
    for (auto &group : siblings) markCovered(entries, std::move(group.second), true, obscured);
    for (size_t i = 0; i < entries.size(); ++i) {
        auto range = byParentAndPoint.equal_range({entries[i].id, entries[i].mountPoint});
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second != i) overmounted[i] = true;
        }
    }
    // Down the tree: 0 not yet known, 1 on the current chain (a cycle ends there), 2 known.
    std::vector<char> state(entries.size(), 0);
    for (size_t start = 0; start < entries.size(); ++start) {
        std::vector<size_t> chain;
        size_t at = start;
        while (state[at] == 0) {
            state[at] = 1;
            chain.push_back(at);
            auto parent = byId.find(entries[at].parentId);
            if (parent == byId.end() || parent->second == at) break;
            at = parent->second;
        }
        // `at` is known, on the chain (a cycle or the top), or the top itself.
        for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
            auto parent = byId.find(entries[*it].parentId);
            if (parent != byId.end() && parent->second != *it && state[parent->second] == 2) {
                size_t p = parent->second;
                bool belowParent = entries[*it].mountPoint != entries[p].mountPoint;
                if (obscured[p] || (overmounted[p] && belowParent)) obscured[*it] = true;
            }
            state[*it] = 2;
        }
    }
    for (size_t i = 0; i < entries.size(); ++i) hidden[i] = obscured[i] || overmounted[i];
    return hidden;
}

bool isComponentPrefix(const std::string &prefix, const std::string &path) {
    if (prefix == "/") return !path.empty() && path[0] == '/';
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    return path.size() == prefix.size() || path[prefix.size()] == '/';
}

const MountEntry *findMountFor(const std::vector<MountEntry> &entries,
                               const std::vector<bool> &hidden, const std::string &path) {
    const MountEntry *best = nullptr;
    for (size_t i = 0; i < entries.size(); ++i) {
        const MountEntry &entry = entries[i];
        if (hidden[i] || !isComponentPrefix(entry.mountPoint, path)) continue;
        if (best == nullptr || entry.mountPoint.size() >= best->mountPoint.size()) best = &entry;
    }
    return best;
}

unsigned int mountHolding(const char *path, std::vector<MountEntry> &entries,
                          std::vector<bool> &hidden, size_t &mount, std::string &detail) {
    std::unique_ptr<char, void (*)(void *)> real(realpath(path, nullptr), free);
    if (!real) {
        detail = std::string(path) + ": " + strerror(errno);
        return TELO_ERR_NOT_FOUND;
    }
    if (!readMountTable(entries, detail)) return fileErrorCode(errno);
    hidden = hiddenMounts(entries);
    const MountEntry *found = findMountFor(entries, hidden, real.get());
    if (found == nullptr) {
        detail = "no entry of mount table " + mountTablePath() + " covers " + real.get();
        errno = ENOENT;
        return TELO_ERR_BAD_CONFIG;
    }
    mount = static_cast<size_t>(found - entries.data());
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

unsigned int fileErrorCode(int error) {
    return error == EINVAL || error == EISDIR || error == EFBIG ? TELO_ERR_BAD_CONFIG
                                                                : TELO_ERR_SYSTEM;
}

}  // namespace telo_platform
