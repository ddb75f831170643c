// End-to-end tests of the installed telobackup-util's rewrites: lines it would lose are refused
// and named, --dry-run shows the diff and changes nothing, and a dump imports back as it was.
#include <sys/stat.h>
#include <unistd.h>

#include "tools/tool_fixture.h"

namespace {

// A file with every kind of line a rewrite of [s] would lose: a value that is not JSON, an
// earlier duplicate of a key, and a second copy of the section with keys of its own.
const char kForeign[] =
    "# top\n[s]\nplain = hello world\nk=1\nk=2\n# inside\n[t]\nx=1\n[s]\nm=\"z\"\n";

}  // namespace

TEST_F(Tool, RewritesThatWouldLoseLinesAreRefused) {
    writeFile(conf, kForeign);
    CommandResult r = run({"config", "set", conf, "s", "n=3"});
    EXPECT_EQ(3, r.exitCode);
    const std::string lost = "telobackup-util: " + conf + ":";
    EXPECT_EQ("telobackup-util: refusing to rewrite " + conf +
                  ": [s] appears 2 times and only its first copy's keys are kept; these lines "
                  "would be lost:\n" +
                  lost + "3: plain = hello world\n" + lost + "4: k=1\n" + lost + "10: m=\"z\"\n" +
                  "telobackup-util: store plain text with --string KEY=TEXT, merge the copies "
                  "first, or accept the loss with --force\n",
              r.err);
    EXPECT_EQ(kForeign, readFile(conf));
    // Another section of the file is rewritten without a word.
    EXPECT_EQ(0, run({"config", "set", conf, "t", "x=2"}).exitCode);
    // --force accepts the loss.
    writeFile(conf, kForeign);
    r = run({"config", "set", conf, "s", "n=3", "--force"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("# top\n[s]\nk=2\nn=3\n# inside\n[t]\nx=1\n[s]\nk=2\nn=3\n", readFile(conf));
}

TEST_F(Tool, DryRunPrintsTheDiffAndChangesNothing) {
    mkdir(dir.file("tmp").c_str(), 0700);
    const std::map<std::string, std::string> env = {{"TMPDIR", dir.file("tmp")}};
    const std::string text = "# tasks\n[a]\nx=1\n# kept\n[b]\ny=2\n",
                      head = "--- " + conf + "\n+++ " + conf + "\n";
    writeFile(conf, text);
    CommandResult r = run({"config", "set", conf, "a", "x=5", "z=true", "--dry-run"}, "", env);
    EXPECT_EQ(1, r.exitCode) << r.err;
    EXPECT_EQ(head + "@@ -1,6 +1,7 @@\n # tasks\n [a]\n-x=1\n+x=5\n+z=true\n # kept\n [b]\n y=2\n",
              r.out);
    // Nothing that would not change is a diff, exit 0.
    r = run({"config", "set", conf, "b", "y=2", "--dry-run"}, "", env);
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", r.out);
    // delete takes the comments inside the section with it.
    r = run({"config", "delete", conf, "a", "--dry-run"}, "", env);
    EXPECT_EQ(1, r.exitCode) << r.err;
    EXPECT_EQ(head + "@@ -1,6 +1,3 @@\n # tasks\n-[a]\n-x=1\n-# kept\n [b]\n y=2\n", r.out);
    // A file that new would create is a diff from nothing, and is not created.
    const std::string fresh = dir.file("fresh.conf");
    r = run({"config", "new", fresh, "task", "--dry-run", "n=1"}, "", env);
    EXPECT_EQ(1, r.exitCode) << r.err;
    EXPECT_EQ("--- " + fresh + "\n+++ " + fresh + "\n@@ -0,0 +1,2 @@\n+[task1]\n+n=1\n", r.out);
    EXPECT_FALSE(exists(fresh));
    EXPECT_EQ(text, readFile(conf));
    EXPECT_EQ(std::vector<std::string>{}, listDir(dir.file("tmp")));
}

// dump, then import into an empty file, then dump again: the same text; --from-json merges many
// keys into a section at once.
TEST_F(Tool, DumpImportsBackAndJsonSetsManyKeys) {
    writeFile(conf,
              "[a]\nx=1\ny=\"two words\"\n[b]\nz=[1,{\"q\":null}]\n[c]\nu=\"\\u00e9\\n$'\"\n"
              "[]\nempty=\"\"\n");
    const std::string dump = out({"config", "dump", conf}), copy = dir.file("copy.conf");
    ASSERT_FALSE(dump.empty());
    CommandResult r = run({"--json", "config", "import", copy, "@-", "--create"}, dump);
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("{\"changed\":true,\"sections\":4}\n", r.out);
    EXPECT_EQ(dump, out({"config", "dump", copy}));

    // --from-json merges into the section; the command line's values win.
    writeFile(dir.file("more.json"), "{\"x\":2,\"w\":{\"deep\":[true]}}");
    EXPECT_EQ(0,
              run({"config", "set", copy, "a", "--from-json", "@" + dir.file("more.json"), "x=3"})
                  .exitCode);
    EXPECT_EQ("{\"w\":{\"deep\":[true]},\"x\":3,\"y\":\"two words\"}\n",
              out({"config", "get", copy, "a"}));
}
