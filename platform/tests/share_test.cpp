#include <gtest/gtest.h>

#include <cstdlib>

#include "support/temp_dir.h"
#include "telo/platform.h"
#include "telobackup/path/path_telo.h"

using namespace testsupport;

namespace {

// Points the platform at fixture files for the life of the object.
class Fixtures {
  public:
    Fixtures(const std::string &shares, const std::string &smb) {
        setenv("TELO_SHARES_CONF", shares.c_str(), 1);
        setenv("TELO_SMB_CONF", smb.c_str(), 1);
    }
    ~Fixtures() {
        unsetenv("TELO_SHARES_CONF");
        unsetenv("TELO_SMB_CONF");
    }
};

// "name path" of the share holding `path`, or "error <code>".
std::string lookup(const char *path, int nameSize = 64) {
    char name[64] = "stale", sharePath[256] = "stale";
    if (TELOShareNamePathGet(path, name, nameSize, sharePath, sizeof(sharePath)) != 0) {
        return "error " + std::to_string(TLIBCErrGet());
    }
    return std::string(name) + " " + sharePath;
}

}  // namespace

TEST(ShareLookup, SharesFileLongestComponentPrefix) {
    TempDir dir;
    writeFile(dir.file("shares.conf"),
              "# administrator's shares\n"
              "[photos]\npath=\"/srv/photos\"\n"
              "[all]\n  path = \"/srv/\"  \ncomment=\"x\"\n"
              "[deep]\npath=\"/srv/photos/2024\"\n"
              "[esc]\npath=\"/srv/\\u00e9t\\u00E9 \\\"q\\\"\\/x\"\n"
              "[bad]\npath=/srv/unquoted\n"
              "[badhex]\npath=\"/srv/\\u0x41\"\n[blankhex]\npath=\"/srv/\\u 041\"\n"
              "[relative]\npath=\"srv/rel\"\n");
    Fixtures env(dir.file("shares.conf"), dir.file("no-smb.conf"));
    EXPECT_EQ("photos /srv/photos", lookup("/srv/photos/2023/a.jpg"));
    EXPECT_EQ("deep /srv/photos/2024", lookup("/srv/photos/2024"));
    EXPECT_EQ("all /srv", lookup("/srv/photosX"));
    EXPECT_EQ("all /srv", lookup("/srv/unquoted/x"));
    EXPECT_EQ("all /srv", lookup("/srv/A/x"));  // malformed \u escapes name no share
    EXPECT_EQ("esc /srv/\xc3\xa9t\xc3\xa9 \"q\"/x", lookup("/srv/\xc3\xa9t\xc3\xa9 \"q\"/x/f"));
    EXPECT_EQ("error 2", lookup("/srvx"));
    EXPECT_EQ("error 2", lookup("srv/rel/x"));
    EXPECT_EQ("error 5", lookup("/srv/photos/1", 6));  // "photos" needs 7 bytes
    EXPECT_EQ("error 1", lookup(""));
    EXPECT_EQ("photos", TELO::Backup::Path::getShareName("/srv/photos/a"));
}

TEST(ShareLookup, SambaSharesWhenNoSharesFile) {
    TempDir dir;
    writeFile(dir.file("smb.conf"),
              "[global]\n   path = /srv\n   include = " + dir.file("extra.conf") +
                  "\n; comment\n# path = /srv/commented\n"
                  "[Homes]\npath = /home\n[print$]\npath=/var/print\n"
                  "[Media]\n  Path = /srv/media  \n"
                  "[long]\npath = /srv/media/\\\n   long\n"
                  "[media]\npath = /srv/media2\n");
    writeFile(dir.file("extra.conf"), "[extra]\npath=/srv/extra/\ninclude = " +
                                          dir.file("smb.conf") + "\ninclude = /missing\n");
    Fixtures env(dir.file("no-shares.conf"), dir.file("smb.conf"));
    EXPECT_EQ("error 2", lookup("/srv/x"));  // global, homes and print$ are no shares
    EXPECT_EQ("error 2", lookup("/home/u"));
    EXPECT_EQ("Media /srv/media2", lookup("/srv/media2/a"));  // the later path wins
    EXPECT_EQ("long /srv/media/long", lookup("/srv/media/long/a"));
    EXPECT_EQ("extra /srv/extra", lookup("/srv/extra"));  // included, even in a loop
    setenv("TELO_SMB_CONF", dir.file("no-smb.conf").c_str(), 1);
    EXPECT_EQ("error 2", lookup("/srv/x"));
    setenv("TELO_SHARES_CONF", dir.path().c_str(), 1);  // unreadable: a directory
    EXPECT_EQ("error 4", lookup("/srv/x"));
}
