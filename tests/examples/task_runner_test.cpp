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
// cannot run and a disabled task: each task's outcome is printed, and the archive replaces its
// old version whole.
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
    writeFile(conf, "[task1]\n" + task("photos", photos) +
                        "include=[\"/cache/keep.jpg\"]\nexclude=[\"/cache/**\",\"/**.txt\"]\n"
                        "[task2]\n" + task("docs", photos + "/sub") + "hook=[\"" + hook[0] +
                        "\",\"" + hook[1] + "\"]\n[task3]\n" + task("broken", photos) +
                        "hook=[\"/nonexistent/mount-target\"]\n"
                        "[task4]\nname=\"off\"\nenabled=false\nsource=\"/\"\ndest=\"/\"\n");

    // The password is stored encrypted, never as text.
    CommandResult set = run({conf, "--set-password", "task2"}, "s3cret\n");
    EXPECT_EQ("task2: password stored\n", set.out) << set.err;
    EXPECT_EQ(std::string::npos, readFile(conf).find("s3cret"));

    CommandResult result = run({conf});
    EXPECT_EQ(1, result.exitCode) << result.err;
    EXPECT_EQ("photos: 3 files archived to " + dest + "/photos.tar\n" + "docs: 1 files archived to " +
                  dest + "/docs.tar\nbroken: failed\n",
              result.out);
    EXPECT_EQ("broken: cannot run hook /nonexistent/mount-target: No such file or directory\n",
              result.err);
    EXPECT_EQ((std::vector<std::string>{"cache/keep.jpg", "sub/y.jpg", "x.jpg"}),
              archived(dest + "/photos.tar"));
    EXPECT_EQ((std::vector<std::string>{"docs.tar", "photos.tar"}), listDir(dest));
}
