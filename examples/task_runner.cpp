// task_runner: runs the backup tasks of a task file, as a small daemon would on each timer tick.
//
//     task_runner TASKS.conf                    run every enabled [taskN] section
//     task_runner TASKS.conf --set-password S   store standard input's first line as the
//                                               encrypted password of section S
//
// A task section holds one-line JSON values:
//     [task1]
//     name="photos"
//     source="/srv/photos"             archived relative to itself
//     dest="/srv/backup"               gets photos.tar, replaced whole or not at all
//     include=["/**/*.jpg"]            prior includes: always taken
//     exclude=["/**/cache/**"]
//     hook=["/usr/local/bin/mount-target", "--check"]   run first, sees TASK_NAME, TASK_PASSWORD
//     notify="{{task}}: {{files}} files to {{dest}}"    a template with no holes, or no notice
//     timeout=600                      seconds the archiver may take
//
// One line per task on standard output, the reason on standard error; every line also goes to
// the application log (TELO_LOGFILE), which SIGHUP reopens after rotation. Exit status: 0 all
// tasks done, 1 some failed, 2 the task file or the arguments are unusable.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "telobackup/util.h"

using namespace TELO::Backup;

namespace {

const char *const kArchivers[] = {"/usr/bin/tar", "/bin/tar"};

extern "C" void reopenLogOnHangup(int) {
    int saved = errno;
    filelogReopen();
    errno = saved;
}

// The outcome of one task, printed and logged by the caller.
struct Outcome {
    bool ok = false;
    std::string text;  // "12 files archived to /srv/backup/photos.tar", or the reason
    int files = 0;
};

Outcome failed(const std::string &why) {
    return Outcome{false, why, 0};
}

// The library's last diagnostic line, for a failure it has already described there.
std::string because(const std::string &what) {
    std::string reason = lastErrorText();
    return reason.empty() ? what : what + " (" + reason + ")";
}

std::string baseName(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The task's patterns as a filter; rules are matched against "/relative/path".
PathFilter buildFilter(const OptionMap &task) {
    PathFilter filter;
    std::list<std::string> patterns;
    if (task.optGet("include", patterns)) filter.addPriorIncludePattern(patterns);
    if (task.optGet("exclude", patterns)) filter.addExcludePattern(patterns);
    return filter;
}

// Regular files below `relative` that the filter keeps, as paths relative to the task's source.
// Links are never followed: a user who owns part of the source cannot point the task elsewhere.
bool selectFiles(const std::string &root, const std::string &relative, const PathFilter &filter,
                 std::vector<std::string> &out, std::string &error) {
    std::string dir = relative.empty() ? root : root + "/" + relative;
    DIR *stream = opendir(dir.c_str());
    if (stream == nullptr) {
        error = "cannot read " + dir + ": " + strerror(errno);
        return false;
    }
    bool ok = true;
    while (struct dirent *entry = readdir(stream)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string path = relative.empty() ? name : relative + "/" + name;
        struct stat info;
        if (lstat((root + "/" + path).c_str(), &info) != 0) continue;  // gone meanwhile
        if (S_ISDIR(info.st_mode)) {
            ok = selectFiles(root, path, filter, out, error);  // a prior include may be inside
        } else if (S_ISREG(info.st_mode) && !filter.filterOut("/" + path) &&
                   path.find('\n') == std::string::npos) {
            out.push_back(path);
        }
        if (!ok) break;
    }
    closedir(stream);
    return ok;
}

// Runs the task's hook, if any, with the decrypted password in its environment.
bool runHook(const OptionMap &task, const std::string &name, std::string &error) {
    std::list<std::string> command;
    if (!task.optGet("hook", command) || command.empty()) return true;
    SubProcess hook(std::vector<std::string>(command.begin(), command.end()));
    hook.setEnv("TASK_NAME", name);
    std::string password;
    if (task.optGetSecretChecked("password", password)) {
        hook.setEnv("TASK_PASSWORD", password);
    } else if (errno != ENOENT) {
        error = because("cannot decrypt the password");
        return false;
    }
    hook.setStdError(STDERR_FILENO);
    LaunchFailure why;
    int status = hook.call(why);
    if (why.step != LaunchFailure::kNone && why.step != LaunchFailure::kUnobserved) {
        error = "cannot run hook " + command.front() + ": " + strerror(why.error);
        return false;
    }
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "hook " + command.front() + " failed (status " + std::to_string(status) + ")";
        return false;
    }
    return true;
}

std::string findArchiver() {
    for (const char *path : kArchivers) {
        if (access(path, X_OK) == 0) return path;
    }
    return kArchivers[0];
}

// Archives `files` of `source` into `staging` with tar, which reads the names on its standard
// input and confirms each one on its output.
Outcome archive(const std::string &source, const std::vector<std::string> &files,
                const ScopedTempFile &staging, int timeoutSeconds) {
    SubProcess tar(std::vector<std::string>{findArchiver(), "-cvf", staging.getPath(), "-C", source,
                                            "--no-recursion", "--verbatim-files-from", "-T", "-"});
    tar.setStdError(STDERR_FILENO);
    Conversation talk(tar);
    if (!talk.started()) return failed(because("cannot start the archiver"));
    for (const std::string &file : files) {
        if (!talk.write(file + "\n"))
            return failed("archiver stopped reading: " + std::string(strerror(errno)));
    }
    talk.closeInput();
    Outcome outcome;
    for (std::string line; talk.readLine(line);) ++outcome.files;
    int status = talk.wait(timeoutSeconds * 1000);
    if (status == -1 && errno == ETIMEDOUT) {
        return failed("archiver still running after " + std::to_string(timeoutSeconds) + " s");
    }  // the Conversation stops and reaps it
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return failed("archiver failed (status " + std::to_string(status) + ")");
    }
    outcome.ok = true;
    return outcome;
}

// A temporary archive beside its final place, so that the rename replaces the old one whole.
ScopedTempFile stageIn(const std::string &dest, const std::string &name) {
    return ScopedTempFile(dest + "/." + name + ".tar", true);
}

Outcome runTask(const OptionMap &task) {
    std::string name = task.optString("name", task.optSectionGetName());
    std::string source = task.optString("source", ""), dest = task.optString("dest", "");
    if (source.empty() || dest.empty()) return failed("needs both source and dest");
    if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
        return failed("name '" + name + "' is not a plain file name");
    }
    std::string error;
    if (!runHook(task, name, error)) return failed(error);

    PathFilter filter = buildFilter(task);
    std::vector<std::string> files;
    if (!selectFiles(source, "", filter, files, error)) return failed(error);

    ScopedTempFile staging = stageIn(dest, name);
    if (!staging.isValid()) return failed("cannot stage in " + dest + ": " + strerror(errno));
    Outcome outcome = archive(source, files, staging, task.optInt("timeout", 600));
    if (!outcome.ok) return outcome;  // the staging file goes with `staging`
    std::string target = dest + "/" + name + ".tar";
    if (!staging.renameWithMode(target)) return failed(because("cannot replace " + target));
    outcome.text = std::to_string(outcome.files) + " files archived to " + target;
    return outcome;
}

// Records the outcome in the task's section, re-read under the lock so that a change another
// process made meanwhile is kept.
bool recordOutcome(OptionMap &tasks, const std::string &file, const std::string &section,
                   const Outcome &outcome) {
    OptionMap::ScopedLock guard(tasks);
    if (!guard) return false;
    OptionMap fresh;
    if (!fresh.optSectionLoad(file, section, -1)) return false;
    fresh.optSet("last_status", std::string(outcome.ok ? "ok" : "failed"));
    fresh.optSet("last_files", outcome.files);
    fresh.optSet("last_run", static_cast<long long>(time(nullptr)));
    return fresh.optSectionExport(file, section, false);
}

// The task's notice, only when its template has a value for every tag.
void notify(const OptionMap &task, const std::string &name, const Outcome &outcome) {
    std::string templ = task.optString("notify", "");
    if (templ.empty()) return;
    std::map<std::string, std::string> vars = {{"task", name},
                                               {"status", outcome.ok ? "ok" : "failed"},
                                               {"files", std::to_string(outcome.files)},
                                               {"dest", task.optString("dest", "")}};
    std::vector<std::string> missing;
    std::string text = replaceMustache(templ, vars, missing);
    if (!missing.empty()) {
        std::cerr << name << ": no notice, the template has no value for '" << missing.front()
                  << "'\n";
        return;
    }
    std::cout << "notice: " << text << "\n";
    filelog(0, "notice: %s", text.c_str());
}

int setPassword(const std::string &file, const std::string &section, OptionMap &tasks) {
    std::string password;
    if (!std::getline(std::cin, password) || password.empty()) {
        std::cerr << "task_runner: no password on standard input\n";
        return 2;
    }
    OptionMap::ScopedLock guard(tasks);
    OptionMap task;
    if (!guard || !task.optSectionLoad(file, section, -1)) {
        std::cerr << "task_runner: " << because("cannot load [" + section + "]") << "\n";
        return 2;
    }
    if (!task.optSetSecretChecked("password", password)) {
        std::cerr << "task_runner: " << because("cannot encrypt the password, nothing stored")
                  << "\n";
        return 1;
    }
    if (!task.optSectionExport(file, section, false)) {
        std::cerr << "task_runner: " << because("cannot save [" + section + "]") << "\n";
        return 1;
    }
    std::cout << section << ": password stored\n";
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 && !(argc == 4 && std::string(argv[2]) == "--set-password")) {
        std::cerr << "usage: task_runner TASKS.conf [--set-password SECTION]\n";
        return 2;
    }
    std::string file = argv[1];
    signal(SIGHUP, reopenLogOnHangup);

    OptionMap tasks;  // carries the writers' lock of the task file
    if (!tasks.setLockToken("task_runner." + baseName(file))) {
        std::cerr << "task_runner: " << because("no lock for " + file) << "\n";
        return 2;
    }
    if (argc == 4) return setPassword(file, argv[3], tasks);

    std::list<std::string> sections;
    struct stat info;
    if (stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
        !OptionMap::optSectionListName(file, sections)) {
        std::cerr << "task_runner: cannot read " << file << ": " << strerror(errno) << "\n";
        return 2;
    }
    int failures = 0;
    for (const std::string &section : sections) {
        if (section.compare(0, 4, "task") != 0) continue;
        OptionMap task;
        clearLastErrorText();
        if (!task.optSectionLoad(file, section, -1)) {
            std::cerr << section << ": " << because("cannot load") << "\n";
            ++failures;
            continue;
        }
        if (!task.optBool("enabled", true)) continue;
        std::string name = task.optString("name", section);
        Outcome outcome = runTask(task);
        if (outcome.ok) {
            std::cout << name << ": " << outcome.text << "\n";
        } else {
            std::cout << name << ": failed\n";
            std::cerr << name << ": " << outcome.text << "\n";
            ++failures;
        }
        filelog(0, "%s: %s", name.c_str(), outcome.text.c_str());
        if (!recordOutcome(tasks, file, section, outcome)) {
            std::cerr << name << ": " << because("outcome not recorded") << "\n";
            ++failures;
        }
        notify(task, name, outcome);
    }
    return failures == 0 ? 0 : 1;
}
