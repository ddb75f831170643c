// Shares of the generic server: the shares file, Samba's configuration read as testparm reads it
// (checked against testparm itself over a corpus), path resolution and configuration failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <sstream>

#include "share_config.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace testsupport;
using telo_platform::SambaConfig;
using telo_platform::Share;

namespace {

// "name path" of the share holding `path` under the shares file and Samba configuration given,
// or "error <code> <errno text>: <detail>".
std::string lookup(const std::string &shares, const std::string &smb, const std::string &path,
                   int nameSize = 64) {
    setenv("TELO_SHARES_CONF", shares.c_str(), 1);
    setenv("TELO_SMB_CONF", smb.c_str(), 1);
    char name[64] = "stale", sharePath[256] = "stale";
    int rc = TELOShareNamePathGet(path.c_str(), name, nameSize, sharePath, sizeof(sharePath));
    std::string error = strerror(errno);
    unsetenv("TELO_SHARES_CONF");
    unsetenv("TELO_SMB_CONF");
    if (rc == 0) return std::string(name) + " " + sharePath;
    return "error " + std::to_string(TLIBCErrGet()) + " " + error + ": " + TLIBCErrorGetDetail();
}

std::string describe(const std::vector<Share> &shares) {
    std::string text;
    for (const Share &share : shares) text += "[" + share.name + "]=" + share.path + " ";
    return text;
}

// The disk shares of a configuration held in memory ("/smb.conf" and what it includes), or
// "refused <errno text>: <detail>".
std::string sambaShares(const std::map<std::string, std::string> &files,
                        const std::string &main = "/smb.conf") {
    SambaConfig config([&files](const std::string &path, std::string &content) {
        auto found = files.find(path);
        errno = ENOENT;
        content = found != files.end() ? found->second : "";
        return found != files.end();
    });
    if (config.load(main) != TELO_ERR_NONE) {
        return "refused " + std::string(strerror(errno)) + ": " + config.detail();
    }
    return describe(config.shares());
}

// A corpus file with @DIR@ replaced by `dir`, written into `dir`.
std::string instantiate(const std::string &source, const std::string &dir) {
    std::string text = readFile(source);
    for (size_t at; (at = text.find("@DIR@")) != std::string::npos;) text.replace(at, 5, dir);
    std::string target = dir + "/" + source.substr(source.rfind('/') + 1);
    writeFile(target, text);
    return target;
}

}  // namespace

// The share of a path is the longest share path that is a component prefix, both resolved.
TEST(SharesFile, JsonOrPlainPathsAndTheLongestResolvedPrefix) {
    TempDir dir;
    for (const char *d : {"srv", "srv/photos", "srv/photos/2024", "srv/docs", "home"}) {
        makeDir(dir.file(d));
    }
    ASSERT_EQ(0, symlink(dir.file("srv/photos/2024").c_str(), dir.file("home/link").c_str()));
    ASSERT_EQ(0, symlink(dir.file("srv/docs").c_str(), dir.file("docs-link").c_str()));
    std::string srv = dir.file("srv"), shares = dir.file("shares.conf");
    writeFile(shares, "[all]\n  path = " + srv + "/  \ncomment=\"x\"\n[Photos]\npath=\"" + srv +
                          "/photos\"\n[Docs]\npath = " + dir.file("docs-link") +
                          "/\n[later]\npath=" + srv + "/photos/\n");  // the first one wins
    std::string none = dir.file("none.smb");
    EXPECT_EQ("Photos " + srv + "/photos", lookup(shares, none, srv + "/photos/2023/a.jpg"));
    EXPECT_EQ("Photos " + srv + "/photos", lookup(shares, none, dir.file("home/link/a.jpg")));
    EXPECT_EQ("Docs " + srv + "/docs", lookup(shares, none, srv + "/photos/../docs/x"));
    EXPECT_EQ("all " + srv, lookup(shares, none, srv + "/photosX"));
    EXPECT_EQ("error 2 No such file or directory: " + srv + "x: in no share",
              lookup(shares, none, srv + "x"));
    EXPECT_EQ("error 5 Numerical result out of range: ",
              lookup(shares, none, srv + "/photos/1", 6));
}

// A configuration that cannot be read is an error that says so, never "in no share"; nothing
// that is not a regular file is read, so a device or a kernel file cannot exhaust the caller.
TEST(SharesFile, MissingOrUnreadableConfiguration) {
    TempDir dir;
    writeFile(dir.file("smb.conf"), "[Media]\npath = /srv/media\ninclude = /dev/zero\n");
    writeFile(dir.file("big.conf"), std::string(telo_platform::kMaxShareFileBytes + 1, '#'));
    std::string none = dir.file("none"), noSmb = dir.file("none.smb"), media = "/srv/media/a";
    // A shares file that defines no section leaves the shares to Samba.
    writeFile(dir.file("media.conf"), "[Media]\npath = /srv/media\n");
    writeFile(dir.file("empty.conf"), "# nothing defined here yet\n\n");
    EXPECT_EQ("Media /srv/media", lookup(dir.file("empty.conf"), dir.file("media.conf"), media));
    EXPECT_EQ("error 4 No such file or directory: no share configuration: neither " + none +
                  " nor " + noSmb + " exists",
              lookup(none, noSmb, media));
    EXPECT_EQ("error 7 Invalid argument: Samba configuration " + dir.file("smb.conf") +
                  ":3: include /dev/zero: not a regular file",
              lookup(none, dir.file("smb.conf"), media));
    EXPECT_EQ("error 7 File too large: shares file " + dir.file("big.conf") +
                  ": larger than 4194304 bytes",
              lookup(dir.file("big.conf"), noSmb, media));
    EXPECT_EQ("error 7 Invalid argument: shares file /proc/self/status: not a regular file",
              lookup("/proc/self/status", noSmb, media));
}

// Nesting deeper than Samba's 100 (an include loop) refuses the configuration.
TEST(SambaRules, IncludesNestAtMostAHundredDeep) {
    // Files 0 to last, each including the next.
    auto chain = [](int last) {
        std::map<std::string, std::string> chain;
        for (int i = 0; i <= last; ++i) {
            std::string next = i < last ? "include = /" + std::to_string(i + 1) + "\n" : "";
            chain["/" + std::to_string(i)] = "[s" + std::to_string(i) + "]\npath=/s\n" + next;
        }
        return chain;
    };
    EXPECT_NE(std::string::npos, sambaShares(chain(100), "/0").find("[s100]=/s "));
    EXPECT_EQ(
        "refused Too many levels of symbolic links: /100:3: includes nested deeper than 100 "
        "(an include loop?)",
        sambaShares(chain(101), "/0"));
    // Includes that fan out are bounded by what one lookup reads.
    std::map<std::string, std::string> fan;
    for (int i = 0; i < 30; ++i) {
        fan["/" + std::to_string(i)] =
            "include = /" + std::to_string(i + 1) + "\ninclude = /" + std::to_string(i + 1) + "\n";
    }
    std::string refused = sambaShares(fan, "/0");
    EXPECT_EQ(0u, refused.find("refused File too large: ")) << refused;
}

// A configuration of the largest size read takes one pass, not a scan per section (a hang).
TEST(SambaRules, ManySectionsReadInOnePass) {
    std::string smb;
    for (int i = 0; i < 100000; ++i) smb += "[s" + std::to_string(i) + "]\npath=/s\n";
    smb += "[t]\ncopy = S99999\n";
    std::string read = sambaShares({{"/smb.conf", smb}});
    EXPECT_EQ(100001, std::count(read.begin(), read.end(), '='));
}

// The disk shares in testparm's reading of `file`, or "refused". Its dump lists [global] first,
// then each section with "\tname = value" for what differs from [global].
std::string testparmShares(const std::string &testparm, const std::string &file) {
    CommandResult parsed = runCommand({testparm, "-s", file});
    if (parsed.exitCode != 0) return "refused";
    std::vector<std::pair<std::string, std::map<std::string, std::string>>> sections;
    std::istringstream lines(parsed.out);
    for (std::string line; std::getline(lines, line);) {
        size_t eq = line.find(" = ");
        if (line.size() > 1 && line[0] == '[' && line.back() == ']') {
            sections.push_back({line.substr(1, line.size() - 2), {}});
        } else if (line[0] == '\t' && !sections.empty() && eq != std::string::npos) {
            sections.back().second[line.substr(1, eq - 1)] = line.substr(eq + 3);
        }
    }
    std::string shares;
    const auto global = sections.front().second;
    for (auto &[name, params] : sections) {
        if (name == "global" || strcasecmp(name.c_str(), "homes") == 0 ||
            strcasecmp(name.c_str(), "printers") == 0) {
            continue;
        }
        params.insert(global.begin(), global.end());  // what the section does not set
        if (params["available"] == "No" || params["printable"] == "Yes") continue;
        // What smbd uses: one leading and one trailing quote dropped when no other is left.
        std::string path = params["path"], bare = path;
        if (!bare.empty() && bare[0] == '"') bare.erase(0, 1);
        if (!bare.empty() && bare.back() == '"') bare.pop_back();
        if (bare.find('"') == std::string::npos) path = bare;
        if (path.empty() || path[0] != '/' || path.find('%') != std::string::npos) continue;
        shares += "[" + name + "]=" + path + " ";
    }
    return shares;
}

// The differential test: testparm and the lookup read every configuration of the corpus
// (Debian's default smb.conf and one fixture per rule) to the same disk shares.
TEST(SambaDifferential, AgreesWithTestparm) {
    std::string testparm = programPath("testparm");
    if (testparm.empty()) GTEST_SKIP() << "testparm (samba-common-bin) is not installed";
    TempDir dir;
    std::vector<std::pair<std::string, bool>> sources;  // (file, whether a difference is known)
    if (access("/usr/share/samba/smb.conf", R_OK) == 0) {
        writeFile(dir.file("debian-default.conf"), readFile("/usr/share/samba/smb.conf"));
        sources.push_back({dir.file("debian-default.conf"), false});
    }
    for (const char *sub : {"smb", "smb-differs"}) {
        std::string from = std::string(TELO_PLATFORM_TEST_DATA) + "/" + sub;
        for (const std::string &name : listDir(from)) {
            std::string file = instantiate(from + "/" + name, dir.path());
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0) {
                sources.push_back({file, std::string(sub) == "smb-differs"});
            }
        }
    }
    int agreements = 0;
    for (const auto &[file, differs] : sources) {
        SCOPED_TRACE(file);
        std::string expected = testparmShares(testparm, file);
        SambaConfig config;
        std::string actual =
            config.load(file) == TELO_ERR_NONE ? describe(config.shares()) : "refused";
        if (differs) {
            EXPECT_NE(expected, actual) << "a documented difference no longer holds";
            continue;
        }
        EXPECT_EQ(expected, actual);
        agreements += expected == actual ? 1 : 0;
    }
    EXPECT_GE(agreements, 20);
}
