// The mount table read through libmount, its hidden mounts and the volume rules, on arbitrary
// tables. Invariants: every entry has an absolute mount point shorter than PATH_MAX; a volume is
// a visible disk mount, the only volume of its file system, and the visible mount found at its
// own mount point; reading the table from a file (TELO_MOUNTINFO) enumerates exactly the volumes
// the rules choose; parsing is deterministic.
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "mount_table.h"
#include "scratch_dir.h"
#include "telo/platform.h"
#include "volume_rules.h"

using fuzzsupport::check;
using telo_platform::MountEntry;

namespace {

bool realDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string content(reinterpret_cast<const char *>(data), size);
    std::vector<MountEntry> entries;
    check(telo_platform::parseMountTable(content, entries), "parse");
    for (const MountEntry &entry : entries) {
        check(!entry.mountPoint.empty() && entry.mountPoint[0] == '/', "absolute mount point");
        check(entry.mountPoint.size() < PATH_MAX, "mount point shorter than PATH_MAX");
        check(entry.mountPoint == "/" || entry.mountPoint.back() != '/', "no trailing slash");
    }
    std::vector<bool> hidden = telo_platform::hiddenMounts(entries);
    check(hidden.size() == entries.size(), "one flag per entry");

    // Every mount point a directory except names ending in "f", so the file rule is exercised.
    std::vector<size_t> volumes = telo_platform::selectVolumes(
        entries, hidden, [](const std::string &point) { return point.back() != 'f'; });
    for (size_t i = 0; i < volumes.size(); ++i) {
        const MountEntry &volume = entries[volumes[i]];
        check(i == 0 || volumes[i - 1] < volumes[i], "volumes in table order");
        check(!hidden[volumes[i]] && telo_platform::isDiskMount(volume), "a visible disk mount");
        for (size_t j = 0; j < i; ++j) {
            check(!telo_platform::sameFileSystem(entries[volumes[j]], volume), "one per system");
        }
        const MountEntry *found = telo_platform::findMountFor(entries, hidden, volume.mountPoint);
        check(found != nullptr && found->mountPoint == volume.mountPoint, "found at its point");
    }

    std::vector<MountEntry> again;
    check(telo_platform::parseMountTable(content, again) && again.size() == entries.size(),
          "deterministic parse");

    // Through the platform call, with the machine's own directories.
    std::string table = fuzzsupport::scratchDir() + "/mountinfo";
    fuzzsupport::writeText(table, content);
    setenv("TELO_MOUNTINFO", table.c_str(), 1);
    std::vector<size_t> chosen = telo_platform::selectVolumes(entries, hidden, realDirectory);
    TELOVOLInfo *list = TELOMountVolAllEnum(0, TELO_VOL_LOCATION_DISK, 2);
    check(list != nullptr || TLIBCErrGet() == TELO_ERR_NOT_FOUND, "only 'no volume' fails");
    size_t count = 0;
    for (const TELOVOLInfo *v = list; v != nullptr; v = v->next, ++count) {
        check(count < chosen.size() && entries[chosen[count]].mountPoint == v->volPath,
              "the enumeration is the rules' choice");
    }
    check(count == chosen.size(), "as many records as volumes");
    TELOMountVolInfoFree(list);
    return 0;
}
