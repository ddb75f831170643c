// log: one line to the application log.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>

#include "cli.h"
#include "telobackup/log.h"
#include "telobackup/path/path_util.h"

#ifndef TELO_TOOL_LOG_DIR
#define TELO_TOOL_LOG_DIR "/var/log/telobackup"
#endif

namespace telocli {

namespace {

// Points TELO_LOGFILE at the tool's own log when it is unset, so that an installed tool does not
// write beside itself in /usr/bin: the directory is made 0750 and the file 0640 when they are
// missing and the caller may make them (else the write fails and says where).
void chooseDefaultLog() {
    if (getenv("TELO_LOGFILE") != nullptr) return;
    const std::string directory = TELO_TOOL_LOG_DIR;
    const std::string path = directory + "/telobackup-util.log";
    if (mkdir(directory.c_str(), 0750) == 0) {
        int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) {
            fchmod(fd, 0750);  // whatever the umask
            close(fd);
        }
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd >= 0) {
        fchmod(fd, 0640);
        close(fd);
    }
    setenv("TELO_LOGFILE", path.c_str(), 1);
}

}  // namespace

void addLogCommand(CLI::App &app, Context &context) {
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command = app.add_subcommand(
        "log",
        "Append one timestamped line to the application log: TELO_LOGFILE (\"stderr\" for "
        "standard error, empty for none), else " TELO_TOOL_LOG_DIR "/telobackup-util.log");
    command->add_option("MESSAGE", *words, "The message (words are joined by blanks)")->required();
    setExamples(command, "",
                {{"telobackup-util log backup of task1 finished", "one line in the log"},
                 {"TELO_LOGFILE=stderr telobackup-util log testing", "the line on standard error"}});
    command->callback([words, &context] {
        std::string message;
        for (const std::string &word : *words) {
            if (!message.empty()) message += ' ';
            message += word;
        }
        if (message.find('\n') != std::string::npos) {
            throw CommandError(kExitUsage, "log: the message must be one line");
        }
        chooseDefaultLog();
        std::string path = TELO::Backup::Path::getLogPath();
        if (filelogChecked(0, "%s", message.c_str()) != 0) {
            throw systemError(kExitCannotWrite, "cannot write the application log " + path);
        }
        if (context.json) {
            Json::Value out;
            out["logged"] = !path.empty();
            out["file"] = path;
            printJson(out);
        }
    });
}

}  // namespace telocli
