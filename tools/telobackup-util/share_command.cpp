// share: the name of the share holding a path.
#include <CLI/CLI.hpp>

#include "cli.h"
#include "telobackup/path/path_util.h"

namespace telocli {

void addShareCommand(CLI::App &app, Context &context) {
    auto path = std::make_shared<std::string>();
    CLI::App *command =
        app.add_subcommand("share",
                           "Print the name of the share holding PATH (shares from "
                           "/etc/telobackup/shares.conf, else Samba's configuration)");
    command->add_option("PATH", *path, "A file-system path")->required();
    command->callback([path, &context] {
        std::string name = TELO::Backup::Path::getShareName(*path);
        if (name.empty()) throw CommandError(kExitNotFound, *path + ": in no share");
        if (context.json) {
            Json::Value out;
            out["path"] = *path;
            out["share"] = name;
            printJson(out);
        } else {
            printLine(name);
        }
    });
}

}  // namespace telocli
