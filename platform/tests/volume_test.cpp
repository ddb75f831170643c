// Volumes of the generic server: the rules that make a mount a volume, checked against findmnt's
// reading of fixture tables (one per rule), the records of the enumeration, and the temporary
// directory of a volume. Mount points live in the test's own tree, so statvfs measures the real
// file system under them.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "support/process.h"
#include "support/temp_dir.h"
#include "telo/platform.h"
#include "volume_rules.h"

using namespace testsupport;
using telo_platform::MountEntry;

namespace {

const std::string kCorpus = std::string(TELO_PLATFORM_TEST_DATA) + "/mountinfo";

// The volumes enumerated, as "<path> <type code> <usable>", or only their paths.
std::vector<std::string> enumerate(bool pathsOnly = false) {
    std::vector<std::string> records;
    TELOVOLInfo *list = TELOMountVolAllEnum(0, TELO_VOL_LOCATION_DISK, 2);
    for (TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        std::string details = " " + std::to_string(v->fsType) + " " + std::to_string(v->usable);
        records.push_back(v->volPath + (pathsOnly ? "" : details));
        EXPECT_EQ(1, v->mounted);
        EXPECT_GT(v->freeBytes, 0u) << v->volPath;
    }
    TELOMountVolInfoFree(list);
    return records;
}

// "<volume> <type code>" of the volume holding `path`, or "error <code>".
std::string volumeOf(const std::string &path) {
    TELOVOLInfo info;
    memset(&info, 0xff, sizeof(info));
    if (TELOMountVolInfoGet(path.c_str(), &info) != 0) {
        return "error " + std::to_string(TLIBCErrGet());
    }
    EXPECT_EQ(nullptr, info.next);
    return std::string(info.volPath) + " " + std::to_string(info.fsType);
}

// One row of findmnt's listing.
struct Row {
    int id, parent;
    std::string device, root, target, source, type;
};

// The volumes of findmnt's reading of `table`, by the rules as an administrator states them:
// disk file systems (no loop image, no EFI partition), not hidden by a later mount on the same
// point or on a parent, on directories, one per file system (its root, else the shortest).
std::vector<std::string> findmntVolumes(const std::string &findmnt, const std::string &table) {
    CommandResult listed = runCommand({findmnt, "--json", "--list", "--tab-file", table, "-o",
                                       "ID,PARENT,MAJ:MIN,FSROOT,TARGET,SOURCE,FSTYPE"});
    Json::Value json;
    std::string errors;
    std::istringstream in(listed.out);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &json, &errors))
        << listed.err << errors;
    std::vector<Row> rows;
    std::map<int, size_t> byId;
    for (const Json::Value &fs : json["filesystems"]) {
        Row row{fs["id"].asInt(),        fs["parent"].asInt(),    fs["maj:min"].asString(),
                fs["fsroot"].asString(), fs["target"].asString(), fs["source"].asString(),
                fs["fstype"].asString()};
        row.source = row.source.substr(0, row.source.find('['));  // findmnt adds "[root]"
        if (row.id != 0) byId[row.id] = rows.size();
        rows.push_back(row);
    }
    static const std::set<std::string> kDisk = {"ext2",  "ext3",    "ext4", "xfs",   "btrfs",
                                                "vfat",  "msdos",   "fat",  "exfat", "ntfs",
                                                "ntfs3", "fuseblk", "zfs"};
    static const std::set<std::string> kNever = {"squashfs", "iso9660", "udf",  "erofs", "cramfs",
                                                 "nfs",      "nfs4",    "cifs", "smb3",  "smbfs"};
    auto under = [](const std::string &parent, const std::string &path) {
        return parent == "/" || path == parent || path.rfind(parent + "/", 0) == 0;
    };
    auto ancestor = [&](size_t a, size_t of) {  // a is an ancestor of `of` by mount ids
        std::set<size_t> seen;
        for (size_t at = of; seen.insert(at).second && byId.count(rows[at].parent) > 0;) {
            at = byId[rows[at].parent];
            if (at == a) return true;
        }
        return false;
    };
    bool ids = !byId.empty();
    std::map<std::string, size_t> best;
    for (size_t x = 0; x < rows.size(); ++x) {
        const Row &r = rows[x];
        bool disk = (kDisk.count(r.type) > 0 || r.source.rfind("/dev/", 0) == 0) &&
                    kNever.count(r.type) == 0;
        bool loop = r.device.rfind("7:", 0) == 0 || r.source.rfind("/dev/loop", 0) == 0;
        bool efi = (r.type == "vfat" || r.type == "msdos" || r.type == "fat") &&
                   (r.target == "/boot/efi" || r.target == "/efi");
        struct stat st;
        bool directory = stat(r.target.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        bool hidden = false;
        for (size_t y = 0; y < rows.size() && !hidden; ++y) {
            if (y == x || !under(rows[y].target, r.target)) continue;
            hidden =
                ids ? !ancestor(y, x) && (rows[y].target != r.target || y > x || ancestor(x, y))
                    : y > x;
        }
        if (!disk || loop || efi || !directory || hidden) continue;
        auto [slot, fresh] = best.emplace(ids ? r.device : r.source, x);
        const Row &b = rows[slot->second];
        if (!fresh && ((r.root == "/") != (b.root == "/") ? r.root == "/"
                                                          : r.target.size() < b.target.size())) {
            slot->second = x;
        }
    }
    std::set<size_t> order;
    for (const auto &entry : best) order.insert(entry.second);
    std::vector<std::string> targets;
    for (size_t i : order) targets.push_back(rows[i].target);
    return targets;
}

// The corpus table `name` with @DIR@ replaced by `dir`, written there, its mount points made
// (directories, files for *.file, nothing for *missing*).
std::string instantiate(const std::string &name, const TempDir &dir) {
    std::string text = readFile(kCorpus + "/" + name);
    for (size_t at; (at = text.find("@DIR@")) != std::string::npos;)
        text.replace(at, 5, dir.path());
    std::vector<MountEntry> entries;
    EXPECT_TRUE(telo_platform::parseMountTable(text, entries));
    for (const MountEntry &entry : entries) {
        std::filesystem::path point = entry.mountPoint;
        if (entry.mountPoint.rfind(dir.path() + "/", 0) != 0 ||
            entry.mountPoint.find("missing") != std::string::npos) {
            continue;
        }
        bool file = point.extension() == ".file";
        std::error_code ignored;  // a point listed twice
        std::filesystem::create_directories(file ? point.parent_path() : point, ignored);
        if (file) writeFile(point, "");
    }
    writeFile(dir.file(name), text);
    return dir.file(name);
}

class Volumes : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TELO_MOUNTINFO", table.c_str(), 1); }
    void TearDown() override { unsetenv("TELO_MOUNTINFO"); }
    TempDir dir;
    std::string table = instantiate("records.txt", dir);
};

}  // namespace

TEST_F(Volumes, EnumeratesDiskFileSystemsOnceAndFindsTheOneHoldingAPath) {
    std::vector<std::string> expected = {
        dir.file("vol1") + " 2 1",        // ext4
        dir.file("vol2") + " 3 0",        // btrfs, read-only super block
        dir.file("stacked") + " 1 1",     // ext3
        dir.file("with space") + " 0 1",  // vfat
        dir.file("rw") + " 5 0",          // exfat, read-only mount
    };
    EXPECT_EQ(expected, enumerate());
    // The volume holding a path.
    makeDir(dir.file("vol1/data"));
    makeDir(dir.file("vol10"));
    ASSERT_EQ(0, symlink(dir.file("stacked").c_str(), dir.file("vol1/link").c_str()));
    EXPECT_EQ(dir.file("vol1") + " 2", volumeOf(dir.file("vol1/data")));  // ext4
    // Links are resolved first; a bind mount of a volume's file system is that volume.
    EXPECT_EQ(dir.file("stacked") + " 1", volumeOf(dir.file("vol1/link")));  // ext3
    EXPECT_EQ(dir.file("vol1") + " 2", volumeOf(dir.file("bind")));
    // A mount that is not a volume, even below one, is in no volume; prefixes are by component.
    EXPECT_EQ("error 2", volumeOf(dir.file("vol1/sub")));
    EXPECT_EQ("error 2", volumeOf(dir.file("vol10")));
    // No volume, no table.
    writeFile(table, "22 1 0:30 / " + dir.file("tmpfs") + " rw - tmpfs tmpfs rw\n");
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
    EXPECT_EQ(0, TELOVolumeSupportLocGet());
}

// The differential test: findmnt's reading of each fixture table (and of this machine's own
// table), with the rules applied as stated, gives the volumes the platform enumerates.
TEST(VolumeDifferential, AgreesWithFindmnt) {
    std::string findmnt = programPath("findmnt");
    if (findmnt.empty()) GTEST_SKIP() << "findmnt (util-linux) is not installed";
    std::vector<std::string> tables = listDir(kCorpus);
    tables.push_back("/proc/self/mountinfo");
    for (const std::string &name : tables) {
        SCOPED_TRACE(name);
        TempDir dir;
        std::string table = name[0] == '/' ? name : instantiate(name, dir);
        std::vector<std::string> expected = findmntVolumes(findmnt, table);
        setenv("TELO_MOUNTINFO", table.c_str(), 1);
        EXPECT_EQ(expected, enumerate(true));
        unsetenv("TELO_MOUNTINFO");
    }
}

TEST_F(Volumes, TemporaryDirectoryIsMadeOnceNeverThroughALink) {
    char buffer[4095] = {};
    ASSERT_EQ(0, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(dir.file("vol1/.telobackup-tmp"), buffer);
    EXPECT_EQ(01777, fileMode(buffer));
    // Again: the directory is there already.
    ASSERT_EQ(0, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, sizeof(buffer)));
    // A link planted where the directory goes is refused, and its target keeps its mode.
    makeDir(dir.file("target"), 0700);
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("vol2/.telobackup-tmp").c_str()));
    writeFile(dir.file("stacked/.telobackup-tmp"), "file");
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("vol2").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(0700, fileMode(dir.file("target")));
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("stacked").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ENOTDIR, errno);
}
