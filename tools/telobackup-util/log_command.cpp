// log: one line to the application log.
#include <CLI/CLI.hpp>
#include <cerrno>

#include "cli.h"
#include "telobackup/log.h"
#include "telobackup/path/path_util.h"

namespace telocli {

void addLogCommand(CLI::App &app, Context &) {
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command =
        app.add_subcommand("log",
                           "Append one timestamped line to the application log (TELO_LOGFILE, else "
                           "Quarnix.log beside the program; \"stderr\" for standard error)");
    command->add_option("MESSAGE", *words, "The message (words are joined by blanks)")->required();
    command->callback([words] {
        std::string message;
        for (const std::string &word : *words) {
            if (!message.empty()) message += ' ';
            message += word;
        }
        if (message.find('\n') != std::string::npos) {
            throw CommandError(kExitUsage, "log: the message must be one line");
        }
        if (filelogChecked(0, "%s", message.c_str()) != 0) {
            int saved = errno;
            std::string path = TELO::Backup::Path::getLogPath();
            errno = saved;
            throw systemError(kExitCannotWrite, "cannot write the application log " + path);
        }
    });
}

}  // namespace telocli
