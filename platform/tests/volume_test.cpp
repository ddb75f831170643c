// Volumes of the generic server: the rules that make a mount a volume, checked against findmnt's
// reading of fixture tables (one per rule), the records of the enumeration, and the temporary
// directory of a volume. Mount points live in the test's own tree, so statvfs measures the real
// file system under them.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>

#include "support/child.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telo/platform.h"
#include "volume_rules.h"

using namespace testsupport;
using telo_platform::MountEntry;

namespace {

struct Record {
    std::string path;
    int fsType;
    int usable;
    bool operator==(const Record &o) const {
        return path == o.path && fsType == o.fsType && usable == o.usable;
    }
};

std::vector<Record> enumerate(int location = TELO_VOL_LOCATION_DISK) {
    std::vector<Record> records;
    TELOVOLInfo *list = TELOMountVolAllEnum(0, location, 2);
    for (TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        records.push_back({v->volPath, v->fsType, v->usable});
        EXPECT_EQ(1, v->mounted);
        EXPECT_GT(v->freeBytes, 0u) << v->volPath;
    }
    TELOMountVolInfoFree(list);
    return records;
}

std::string joined(const std::vector<std::string> &paths) {
    std::string text;
    for (const std::string &path : paths) text += path + "\n";
    return text;
}

// One row of findmnt's listing.
struct Row {
    int id, parent;
    std::string device, root, target, source, type;
};

// The volumes of findmnt's reading of `table`, by the rules as an administrator states them:
// disk file systems (no loop image, no EFI partition), not hidden by a later mount on the same
// point or on a parent, on directories, one per file system (its root, else the shortest).
std::vector<std::string> referenceVolumes(const std::vector<Row> &rows) {
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
        for (size_t at = of; seen.insert(at).second;) {
            size_t parent = rows.size();
            for (size_t k = 0; k < rows.size(); ++k) {
                if (rows[k].id == rows[at].parent && rows[at].parent != 0 && k != at) parent = k;
            }
            if (parent == rows.size()) return false;
            if (parent == a) return true;
            at = parent;
        }
        return false;
    };
    bool ids = false;
    for (const Row &row : rows) ids = ids || row.id != 0;
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
            bool later =
                ids ? !ancestor(y, x) && (rows[y].target != r.target || y > x || ancestor(x, y))
                    : y > x;
            hidden = later;
        }
        if (!disk || loop || efi || !directory || hidden) continue;
        std::string fs = ids ? r.device : r.source;
        auto found = best.find(fs);
        if (found == best.end()) {
            best[fs] = x;
            continue;
        }
        const Row &b = rows[found->second];
        if ((r.root == "/") != (b.root == "/") ? r.root == "/"
                                               : r.target.size() < b.target.size()) {
            found->second = x;
        }
    }
    std::vector<size_t> order;
    for (const auto &entry : best) order.push_back(entry.second);
    std::sort(order.begin(), order.end());
    std::vector<std::string> targets;
    for (size_t i : order) targets.push_back(rows[i].target);
    return targets;
}

// The platform's volumes of the mount table `table`, and those of findmnt's reading of it.
std::pair<std::vector<std::string>, std::vector<std::string>> bothReadings(
    const std::string &findmnt, const std::string &table) {
    CommandResult listed = runCommand({findmnt, "--json", "--list", "--tab-file", table, "-o",
                                       "ID,PARENT,MAJ:MIN,FSROOT,TARGET,SOURCE,FSTYPE"});
    Json::Value json;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(
        reader->parse(listed.out.data(), listed.out.data() + listed.out.size(), &json, &errors))
        << listed.err << errors;
    std::vector<Row> rows;
    for (const Json::Value &fs : json["filesystems"]) {
        Row row{fs["id"].asInt(),        fs["parent"].asInt(),    fs["maj:min"].asString(),
                fs["fsroot"].asString(), fs["target"].asString(), fs["source"].asString(),
                fs["fstype"].asString()};
        size_t bracket = row.source.find('[');  // findmnt adds "[root]" to the source
        if (bracket != std::string::npos) row.source.resize(bracket);
        rows.push_back(row);
    }
    setenv("TELO_MOUNTINFO", table.c_str(), 1);
    std::vector<std::string> ours;
    for (const Record &record : enumerate()) ours.push_back(record.path);
    unsetenv("TELO_MOUNTINFO");
    return {referenceVolumes(rows), ours};
}

// A table fixture with @DIR@ replaced by `dir`, its mount points made (directories, files for
// *.file, nothing for *missing*).
std::string instantiate(const std::string &source, const TempDir &dir) {
    std::string text = readFile(source);
    for (size_t at; (at = text.find("@DIR@")) != std::string::npos;) {
        text.replace(at, 5, dir.path());
    }
    std::vector<MountEntry> entries;
    EXPECT_TRUE(telo_platform::parseMountTable(text, entries));
    for (const MountEntry &entry : entries) {
        const std::string &point = entry.mountPoint;
        if (point.rfind(dir.path() + "/", 0) != 0 || point.find("missing") != std::string::npos) {
            continue;
        }
        std::string made = dir.path();
        std::string rest = point.substr(made.size() + 1);
        for (size_t pos = 0; pos <= rest.size();) {
            size_t end = std::min(rest.find('/', pos), rest.size());
            made += "/" + rest.substr(pos, end - pos);
            bool last = end == rest.size();
            if (last && made.size() > 5 && made.compare(made.size() - 5, 5, ".file") == 0) {
                writeFile(made, "");
            } else {
                mkdir(made.c_str(), 0755);
            }
            pos = end + 1;
        }
    }
    std::string target = dir.file(source.substr(source.rfind('/') + 1));
    writeFile(target, text);
    return target;
}

class Volumes : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *d : {"vol1", "vol1/sub", "vol2", "tmpfs", "img", "nfs", "stacked",
                              "with space", "rw", "bind"}) {
            ASSERT_EQ(0, mkdir(dir.file(d).c_str(), 0755)) << d;
        }
        writeFile(dir.file("file"), "bound");
        std::string t = dir.path();
        writeFile(dir.file("mountinfo"),
                  "20 1 8:1 / " + t + "/vol1 rw,relatime - ext4 /dev/sdb1 rw\n" + "21 1 8:2 / " +
                      t + "/vol2 rw shared:3 - btrfs /dev/sdc ro,space_cache\n" + "22 1 0:30 / " +
                      t + "/tmpfs rw - tmpfs tmpfs rw\n" + "23 1 7:0 / " + t +
                      "/img ro - squashfs /dev/loop0 ro\n" + "24 1 8:1 /etc/hosts " + t +
                      "/file rw - ext4 /dev/sda1 rw\n" + "25 1 0:40 / " + t +
                      "/nfs rw - nfs4 server:/export rw\n" + "26 1 8:3 / " + t +
                      "/stacked rw - xfs /dev/sdd rw\n" + "27 26 8:4 / " + t +
                      "/stacked rw - ext3 /dev/sde rw\n" + "28 1 8:5 / " + t +
                      "/with\\040space rw - vfat /dev/sdf1 rw\n" + "29 1 8:6 / " + t +
                      "/missing rw - ext4 /dev/sdg rw\n" + "30 1 8:7 / " + t +
                      "/rw ro - exfat /dev/sdh1 rw\n" + "31 20 0:50 / " + t +
                      "/vol1/sub rw - tmpfs tmpfs rw\n" + "32 1 8:1 /data " + t +
                      "/bind rw - ext4 /dev/sdb1 rw\n");
        setenv("TELO_MOUNTINFO", dir.file("mountinfo").c_str(), 1);
    }
    void TearDown() override { unsetenv("TELO_MOUNTINFO"); }
    TempDir dir;
};

}  // namespace

TEST_F(Volumes, EnumeratesDiskFileSystemsOnce) {
    std::vector<Record> expected = {
        {dir.file("vol1"), TELO_FS_EXT4, 1},
        {dir.file("vol2"), TELO_FS_BTRFS, 0},  // read-only super block
        {dir.file("stacked"), TELO_FS_EXT3, 1},
        {dir.file("with space"), TELO_FS_FAT, 1},
        {dir.file("rw"), TELO_FS_FOREIGN, 0},  // read-only mount
    };
    EXPECT_EQ(expected, enumerate());
    EXPECT_EQ(TELO_VOL_LOCATION_DISK, TELOVolumeSupportLocGet());
    EXPECT_TRUE(enumerate(3).empty());
    EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
}

TEST_F(Volumes, NoVolumeAndNoTable) {
    writeFile(dir.file("mountinfo"), "22 1 0:30 / " + dir.file("tmpfs") + " rw - tmpfs tmpfs rw\n");
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
    EXPECT_EQ(0, TELOVolumeSupportLocGet());
    setenv("TELO_MOUNTINFO", dir.file("absent").c_str(), 1);
    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
    EXPECT_EQ("mount table " + dir.file("absent") + ": No such file or directory",
              std::string(TLIBCErrorGetDetail()));
    EXPECT_EQ(0, TELOVolumeSupportLocGet());
}

TEST_F(Volumes, VolumeHoldingAPath) {
    ASSERT_EQ(0, mkdir(dir.file("vol1/data").c_str(), 0755));
    ASSERT_EQ(0, symlink(dir.file("stacked").c_str(), dir.file("vol1/link").c_str()));
    TELOVOLInfo info;
    memset(&info, 0xff, sizeof(info));
    ASSERT_EQ(0, TELOMountVolInfoGet(dir.file("vol1/data").c_str(), &info));
    EXPECT_EQ(dir.file("vol1"), info.volPath);
    EXPECT_EQ(TELO_FS_EXT4, info.fsType);
    EXPECT_EQ(nullptr, info.next);
    // Links are resolved first; a bind mount of a volume's file system is that volume.
    ASSERT_EQ(0, TELOMountVolInfoGet(dir.file("vol1/link").c_str(), &info));
    EXPECT_EQ(dir.file("stacked"), info.volPath);
    EXPECT_EQ(TELO_FS_EXT3, info.fsType);
    ASSERT_EQ(0, TELOMountVolInfoGet(dir.file("bind").c_str(), &info));
    EXPECT_EQ(dir.file("vol1"), info.volPath);
    // A mount that is not a volume, a missing path, bad arguments.
    for (const std::string &path : {dir.file("vol1/sub"), dir.file("tmpfs"), dir.file("nope")}) {
        EXPECT_EQ(-1, TELOMountVolInfoGet(path.c_str(), &info)) << path;
        EXPECT_EQ(unsigned(TELO_ERR_NOT_FOUND), TLIBCErrGet());
    }
    EXPECT_EQ(dir.file("nope") + ": No such file or directory", std::string(TLIBCErrorGetDetail()));
    EXPECT_EQ(-1, TELOMountVolInfoGet("", &info));
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    EXPECT_EQ(-1, TELOMountVolInfoGet("/", nullptr));
}

// The differential test: findmnt's reading of each fixture table (and of this machine's own
// table), with the rules applied as stated, gives the volumes the platform enumerates.
TEST(VolumeDifferential, AgreesWithFindmnt) {
    std::string findmnt = programPath("findmnt");
    if (findmnt.empty()) GTEST_SKIP() << "findmnt (util-linux) is not installed";
    std::string corpus = std::string(TELO_PLATFORM_TEST_DATA) + "/mountinfo";
    printf("%-24s %-8s %s\n", "TABLE", "VOLUMES", "AGREES");
    int agreements = 0;
    std::vector<std::string> tables = listDir(corpus);
    tables.push_back("/proc/self/mountinfo");
    for (const std::string &name : tables) {
        SCOPED_TRACE(name);
        TempDir dir;
        std::string table = name[0] == '/' ? name : instantiate(corpus + "/" + name, dir);
        auto readings = bothReadings(findmnt, table);
        EXPECT_EQ(joined(readings.first), joined(readings.second));
        agreements += readings.first == readings.second ? 1 : 0;
        printf("%-24s %-8zu %s\n", name.c_str(), readings.second.size(),
               readings.first == readings.second ? "yes" : "NO");
    }
    printf("%d of %zu mount tables agree with findmnt\n", agreements, tables.size());
}

TEST_F(Volumes, TemporaryDirectoryIsMadeOnceAndShared) {
    char buffer[4095] = {};
    ASSERT_EQ(0, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(dir.file("vol1/.telobackup-tmp"), buffer);
    EXPECT_EQ(01777, fileMode(buffer));
    // Again, with a trailing slash: the same directory, still there.
    ASSERT_EQ(0, chmod(buffer, 01777));
    ASSERT_EQ(0, TELOShareTmpPathGet((dir.file("vol1") + "/").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(dir.file("vol1/.telobackup-tmp"), buffer);
    // Too small a buffer.
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("vol1").c_str(), buffer, 10));
    EXPECT_EQ(unsigned(TELO_ERR_BUFFER_SMALL), TLIBCErrGet());
    EXPECT_EQ(-1, TELOShareTmpPathGet("relative", buffer, sizeof(buffer)));
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
}

TEST_F(Volumes, TemporaryDirectoryNeverFollowsAPlantedLink) {
    ASSERT_EQ(0, mkdir(dir.file("target").c_str(), 0700));
    ASSERT_EQ(0, symlink(dir.file("target").c_str(), dir.file("vol2/.telobackup-tmp").c_str()));
    writeFile(dir.file("stacked/.telobackup-tmp"), "file");
    char buffer[4095] = {};
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("vol2").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
    EXPECT_EQ(0700, fileMode(dir.file("target")));
    EXPECT_EQ(-1, TELOShareTmpPathGet(dir.file("stacked").c_str(), buffer, sizeof(buffer)));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(Volumes, UnwritableVolumeRootGetsNoDirectory) {
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    std::string volume = dir.file("vol1");
    EXPECT_CHILD_OK(ChildOptions{.dropPrivileges = true}, [volume] {
        char buffer[4095] = {};
        CHILD_CHECK_EQ(-1, TELOShareTmpPathGet(volume.c_str(), buffer, sizeof(buffer)));
        CHILD_CHECK_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
        CHILD_CHECK(!exists(volume + "/.telobackup-tmp"));
    });
}
