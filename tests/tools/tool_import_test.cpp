// config import restores a dump in one rewrite of the file: a reader sees the file as it was or
// with every section imported, never with some of them.
#include <sys/stat.h>

#include <algorithm>

#include "tools/tool_fixture.h"

TEST_F(Tool, ImportRewritesTheFileOnce) {
    const std::string strace = programPath("strace");
    if (strace.empty()) GTEST_SKIP() << "strace is not installed (package strace)";
    writeFile(conf, "# kept\n[a]\nx=1\n[b]\ny=1\n# in b\n[keep]\nz=1\n");
    struct stat before;
    ASSERT_EQ(0, stat(conf.c_str(), &before));
    const std::string trace = dir.file("trace.txt");
    // LeakSanitizer cannot work under ptrace: a sanitized tool is traced without it.
    const char *sanitizer = getenv("ASAN_OPTIONS");
    std::string withoutLeakCheck =
        (sanitizer ? std::string(sanitizer) + ":" : std::string()) + "detect_leaks=0";
    CommandResult r =
        runCommand({strace, "-f", "-qq", "-e", "trace=rename,renameat,renameat2", "-o", trace,
                    toolPath(), "--json", "config", "import", conf, "@-", "--create"},
                   "{\"a\":{\"x\":2},\"b\":{\"y\":2,\"n\":null},\"c\":{\"w\":[1]}}",
                   {{"TELO_SECRET_KEY_FILE", dir.file("secret.key")},
                    {"TELO_LOGFILE", dir.file("app.log")},
                    {"ASAN_OPTIONS", withoutLeakCheck}});
    if (r.exitCode != 0 && !exists(trace)) GTEST_SKIP() << "strace cannot trace here: " << r.err;
    ASSERT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("{\"changed\":true,\"sections\":3}\n", r.out);
    EXPECT_EQ("# kept\n[a]\nx=2\n[b]\nn=null\ny=2\n# in b\n[keep]\nz=1\n[c]\nw=[1]\n",
              readFile(conf));

    // Every section in one rename of a temporary over the file, the only rename made.
    const std::string traced = readFile(trace);
    EXPECT_EQ(1, std::count(traced.begin(), traced.end(), '\n')) << traced;
    EXPECT_NE(std::string::npos, traced.find("tasks.conf\"")) << traced;  // the file is the target
    EXPECT_NE(std::string::npos, traced.find(" = 0\n")) << traced;
    struct stat after;
    ASSERT_EQ(0, stat(conf.c_str(), &after));
    EXPECT_NE(before.st_ino, after.st_ino);
    for (const std::string &name : listDir(dir.path())) {
        EXPECT_NE(0u, name.rfind("tasks.conf.", 0)) << "a temporary was left: " << name;
    }
}
