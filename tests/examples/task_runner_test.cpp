// The task runner example, run on a task file as its users would run it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "support/process.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

std::vector<std::string> archived(const std::string &archive) {
    CommandResult listing = runCommand({programPath("tar"), "-tf", archive});
    std::vector<std::string> names;
    std::istringstream in(listing.out);
    for (std::string line; std::getline(in, line);) names.push_back(line);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

// A filtered archive with a notice, a hook that cannot run and a disabled task: each task's
// outcome is printed, and the archive replaces its old version whole.
TEST(TaskRunner, RunsATaskFile) {
    TempDir dir;
    std::string conf = dir.file("tasks.conf");
    std::string photos = dir.file("photos"), dest = dir.file("backup");
    for (const std::string &d : {photos, photos + "/sub", photos + "/cache", dest}) makeDir(d);
    for (const char *file : {"/x.jpg", "/sub/y.jpg", "/cache/z.jpg", "/cache/keep.jpg", "/n.txt"}) {
        writeFile(photos + file, file);
    }
    ASSERT_EQ(0, symlink("/etc/passwd", (photos + "/sub/link").c_str()));
    writeFile(dest + "/photos.tar", "old archive");
    auto task = [&dest](const std::string &name, const std::string &source) {
        return "name=\"" + name + "\"\nsource=\"" + source + "\"\ndest=\"" + dest + "\"\n";
    };
    writeFile(conf, "[task1]\n" + task("photos", photos) +
                        "include=[\"/cache/keep.jpg\"]\nexclude=[\"/cache/**\",\"/**.txt\"]\n"
                        "notify=\"{{task}}: {{files}} files, {{status}}\"\n[task2]\n" +
                        task("broken", photos) + "hook=[\"/nonexistent/mount-target\"]\n" +
                        "[task3]\nname=\"off\"\nenabled=false\nsource=\"/\"\ndest=\"/\"\n");

    CommandResult result = runCommand(
        {TASK_RUNNER, conf}, "",
        {{"TELO_SECRET_KEY_FILE", dir.file("secret.key")}, {"TELO_LOGFILE", dir.file("app.log")}});
    EXPECT_EQ(1, result.exitCode) << result.err;
    EXPECT_EQ("photos: 3 files archived to " + dest + "/photos.tar\nnotice: photos: 3 files, ok\n" +
                  "broken: failed\n",
              result.out);
    EXPECT_EQ("broken: cannot run hook /nonexistent/mount-target: No such file or directory\n",
              result.err);
    EXPECT_EQ((std::vector<std::string>{"cache/keep.jpg", "sub/y.jpg", "x.jpg"}),
              archived(dest + "/photos.tar"));
    EXPECT_EQ(std::vector<std::string>{"photos.tar"}, listDir(dest));
}
