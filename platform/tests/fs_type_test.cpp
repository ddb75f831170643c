// The file-system type of a path, and what of the mount table it will read.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mount_table.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace telo_platform;
using namespace testsupport;

TEST(FsType, ReadsTheConfiguredMountTable) {
    TempDir dir;
    std::string table = dir.file("mountinfo");
    makeDir(dir.file("d"));
    ASSERT_EQ(0, symlink(dir.file("d").c_str(), dir.file("link").c_str()));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    writeFile(table, "20 1 8:1 / / rw - tmpfs tmpfs rw\n21 20 8:3 / " + dir.file("d") +
                         " rw shared:1 - vfat /dev/sdc rw\n");
    // The type code of `path` under the mount table `from`, or "error <code> <errno>".
    auto type = [](const std::string &from, const std::string &path) {
        setenv("TELO_MOUNTINFO", from.c_str(), 1);
        int code = TELOGetFSType(path.c_str(), 0);
        std::string result = code >= 0
                                 ? std::to_string(code)
                                 : "error " + std::to_string(TLIBCErrGet()) + " " + strerror(errno);
        unsetenv("TELO_MOUNTINFO");
        return result;
    };
    EXPECT_EQ("0", type(table, dir.file("link")));  // vfat, link resolved
    EXPECT_EQ("7", type(table, "/"));               // a type without a code
    EXPECT_EQ("error 4 No such file or directory", type(dir.file("no-table"), "/"));
    // Nothing but a regular file is read: a FIFO would block, a device never end.
    EXPECT_EQ("error 7 Invalid argument", type(dir.file("fifo"), "/"));
    EXPECT_EQ("error 7 Invalid argument", type("/dev/zero", "/"));
    EXPECT_EQ("mount table /dev/zero: not a regular file", std::string(TLIBCErrorGetDetail()));
    writeFile(table, std::string(kMaxMountTableBytes + 1, '#'));
    EXPECT_EQ("error 7 File too large", type(table, "/"));
}
