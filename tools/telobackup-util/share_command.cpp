// share: the name of the share holding a path.
#include <CLI/CLI.hpp>

#include "cli.h"
#include "telo/platform.h"
#include "telobackup/path/path_util.h"

namespace telocli {

void addShareCommand(CLI::App &app, Context &context) {
    auto path = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand(
        "share",
        "Print the name of the share holding PATH, after resolving it (symbolic links, \"..\"). "
        "Shares come from /etc/telobackup/shares.conf, else from Samba's configuration read as "
        "testparm reads it; Samba shares whose path holds a %-macro are never matched");
    command->add_option("PATH", *path, "A file-system path")->required();
    command->callback([path, &context] {
        std::string name = TELO::Backup::Path::getShareName(*path);
        if (name.empty()) {
            switch (TLIBCErrGet()) {
                case TELO_ERR_NOT_FOUND:
                    throw CommandError(kExitNotFound, *path + ": in no share");
                case TELO_ERR_INVALID_PARAM:
                    throw CommandError(kExitUsage, *path + ": " + platformFailure());
                case TELO_ERR_SYSTEM:
                case TELO_ERR_BAD_CONFIG:
                    throw CommandError(kExitInvalidFile, *path + ": " + platformFailure());
                default:
                    throw CommandError(kExitFailed, *path + ": " + platformFailure());
            }
        }
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
