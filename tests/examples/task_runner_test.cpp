// The task runner example, run on a task file as its users would run it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "support/process.h"
#include "support/temp_dir.h"

using namespace testsupport;

// The hook of the "docs" task: succeeds only with the password stored for it.
TELO_TEST_HELPER(check_password) {
    const char *name = getenv("TASK_NAME"), *password = getenv("TASK_PASSWORD");
    return name != nullptr && password != nullptr && std::string(name) == "docs" &&
                   std::string(password) == "s3cret"
               ? 0
               : 9;
    (void)args;
}

namespace {

class TaskRunner : public ::testing::Test {
  protected:
    CommandResult run(std::vector<std::string> args, const std::string &input = "") {
        args.insert(args.begin(), TASK_RUNNER);
        return runCommand(args, input,
                          {{"TELO_SECRET_KEY_FILE", dir.file("secret.key")},
                           {"TELO_LOGFILE", dir.file("app.log")}});
    }

    // The value of `key` in `section` of the task file, as stored.
    std::string stored(const std::string &section, const std::string &key) {
        std::istringstream in(readFile(conf));
        bool inside = false;
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && line[0] == '[') inside = line == "[" + section + "]";
            if (inside && line.compare(0, key.size() + 1, key + "=") == 0) {
                return line.substr(key.size() + 1);
            }
        }
        return "(none)";
    }

    std::vector<std::string> archived(const std::string &archive) {
        CommandResult listing = runCommand({programPath("tar"), "-tf", archive});
        std::vector<std::string> names;
        std::istringstream in(listing.out);
        for (std::string line; std::getline(in, line);) names.push_back(line);
        std::sort(names.begin(), names.end());
        return names;
    }

    TempDir dir;
    std::string conf = dir.file("tasks.conf");
};

}  // namespace

// A task file with a filtered archive, a hook that needs the stored password, a hook that
// cannot run, a disabled task and a notice with a hole: each task's outcome is printed, logged
// and recorded, and the archive replaces its old version whole.
TEST_F(TaskRunner, RunsATaskFile) {
    std::string photos = dir.file("photos"), dest = dir.file("backup");
    for (const std::string &d : {photos, photos + "/sub", photos + "/cache", dest}) makeDir(d);
    for (const char *file : {"/x.jpg", "/sub/y.jpg", "/cache/z.jpg", "/cache/keep.jpg", "/n.txt"}) {
        writeFile(photos + file, file);
    }
    ASSERT_EQ(0, symlink("/etc/passwd", (photos + "/sub/link").c_str()));
    writeFile(dest + "/photos.tar", "old archive");
    std::vector<std::string> hook = helperCommand("check_password");
    auto task = [&dest](const std::string &name, const std::string &source) {
        return "name=\"" + name + "\"\nsource=\"" + source + "\"\ndest=\"" + dest + "\"\n";
    };
    writeFile(conf, "[global]\nowner=\"ops\"\n[task1]\n" + task("photos", photos) +
                        "include=[\"/cache/keep.jpg\"]\nexclude=[\"/cache/**\",\"/**.txt\"]\n"
                        "notify=\"{{task}}: {{files}} files, {{status}}\"\n[task2]\n" +
                        task("docs", photos + "/sub") + "hook=[\"" + hook[0] + "\",\"" + hook[1] +
                        "\"]\nnotify=\"{{task}} on {{host}}\"\n[task3]\n" + task("broken", photos) +
                        "hook=[\"/nonexistent/mount-target\"]\n"
                        "[task4]\nname=\"off\"\nenabled=false\nsource=\"/\"\ndest=\"/\"\n");

    // The password is stored encrypted, never as text.
    CommandResult set = run({conf, "--set-password", "task2"}, "s3cret\n");
    EXPECT_EQ("task2: password stored\n", set.out) << set.err;
    EXPECT_EQ(std::string::npos, readFile(conf).find("s3cret"));

    CommandResult result = run({conf});
    EXPECT_EQ(1, result.exitCode) << result.err;
    EXPECT_EQ("photos: 3 files archived to " + dest + "/photos.tar\nnotice: photos: 3 files, ok\n" +
                  "docs: 1 files archived to " + dest + "/docs.tar\nbroken: failed\n",
              result.out);
    EXPECT_EQ(
        "docs: no notice, the template has no value for 'host'\n"
        "broken: cannot run hook /nonexistent/mount-target: No such file or directory\n",
        result.err);
    EXPECT_EQ((std::vector<std::string>{"cache/keep.jpg", "sub/y.jpg", "x.jpg"}),
              archived(dest + "/photos.tar"));
    EXPECT_EQ((std::vector<std::string>{"docs.tar", "photos.tar"}), listDir(dest));

    EXPECT_EQ("\"ok\"", stored("task1", "last_status"));
    EXPECT_EQ("\"failed\"", stored("task3", "last_status"));
    EXPECT_EQ("(none)", stored("task4", "last_status"));
    EXPECT_EQ("\"ops\"", stored("global", "owner"));
}
