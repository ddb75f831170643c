// mktemp and session: preserved temporaries and sessions on a chosen volume.
#include <sys/stat.h>

#include <CLI/CLI.hpp>

#include "cli.h"
#include "telobackup/session.h"
#include "telobackup/temp_manager/temp_manager.h"
#include "volume_choice.h"

namespace telocli {

namespace {

using TELO::Backup::FilterVolume;

const char kVolumeHelp[] =
    "Volume for the data: max (most free space), max-ext (ext volumes only), max-ext-btrfs "
    "(ext and btrfs), or same:PATH (the volume holding PATH)";

// The filter a --volume value names; the Max filters fall back to /tmp.
std::shared_ptr<FilterVolume> volumeFilter(const std::string &volume) {
    VolumeChoice choice;
    if (!parseVolumeChoice(volume, choice)) {
        throw CommandError(kExitUsage, "bad --volume '" + volume +
                                           "': expected max, max-ext, max-ext-btrfs or same:PATH");
    }
    return volumeFilterOf(choice);
}

struct TempArgs {
    bool directory = false;
    std::string volume;
    std::string name;
    std::string id;
};

void printPath(const Context &context, const char *key, const std::string &value,
               const Json::Value &extra = Json::Value()) {
    if (!context.json) {
        printLine(value);
        return;
    }
    Json::Value out = extra.isObject() ? extra : Json::Value(Json::objectValue);
    out[key] = value;
    printJson(out);
}

void runMktemp(const TempArgs &args, const Context &context) {
    if (args.name.find('/') != std::string::npos || args.name == "." || args.name == "..") {
        throw CommandError(kExitUsage, "mktemp: NAME must be a bare file name: " + args.name);
    }
    std::shared_ptr<FilterVolume> filter = volumeFilter(args.volume);
    std::string path;
    if (args.directory) {
        TELO::Backup::ScopedVolumeTempFolder folder(filter, args.name);
        path = folder.preserve();
    } else {
        TELO::Backup::ScopedVolumeTempFile file(filter, args.name, true);
        path = file.preserve();
    }
    if (path.empty()) {
        throw CommandError(args.volume.compare(0, 5, "same:") == 0 ? kExitNotFound : kExitFailed,
                           "mktemp: cannot create a temporary on volume '" +
                               (args.volume.empty() ? std::string("max") : args.volume) +
                               "' (see the system log)");
    }
    Json::Value extra(Json::objectValue);
    extra["directory"] = args.directory;
    printPath(context, "path", path, extra);
}

void runSessionCreate(const TempArgs &args, const Context &context) {
    TELO::Backup::Session session;
    bool created;
    if (args.volume.empty()) {
        created = session.create();
    } else {
        // Without a directory for the filter the session would land in the current directory.
        std::shared_ptr<FilterVolume> filter = volumeFilter(args.volume);
        std::string directory;
        if (!TELO::Backup::VolumePathManager::getInstance().getVolumePath(filter, directory)) {
            throw CommandError(kExitNotFound, "session create: no directory on volume '" +
                                                  args.volume + "' (see the system log)");
        }
        created = session.create(filter);
    }
    if (!created) {
        std::string problem = ipcTreeProblem("session", 0700);
        throw CommandError(kExitFailed, "session create failed: " +
                                            (problem.empty() ? "see the system log" : problem));
    }
    Json::Value extra(Json::objectValue);
    extra["path"] = session.getPath();
    printPath(context, "id", session.getId(), extra);
}

void runSessionPath(const TempArgs &args, const Context &context) {
    std::string path = TELO::Backup::Session::getPathById(args.id);
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw CommandError(kExitNotFound, "no session '" + args.id + "'");
    }
    printPath(context, "path", path);
}

void runSessionDestroy(const TempArgs &args, const Context &context) {
    if (!TELO::Backup::Session::destroyById(args.id)) {
        std::string problem = ipcTreeProblem("session", 0700);
        throw CommandError(kExitFailed, "cannot destroy session '" + args.id + "': " +
                                            (problem.empty() ? "see the system log" : problem));
    }
    if (context.json) {
        Json::Value out;
        out["changed"] = true;
        out["id"] = args.id;
        printJson(out);
    }
}

}  // namespace

void addTempCommands(CLI::App &app, Context &context) {
    auto args = std::make_shared<TempArgs>();
    CLI::App *mktemp = app.add_subcommand(
        "mktemp",
        "Create a temporary file (or directory) on the chosen volume, keep it, print "
        "its path");
    mktemp->add_flag("--dir", args->directory, "Create a directory");
    mktemp->add_option("--volume", args->volume, kVolumeHelp);
    mktemp->add_option("NAME", args->name,
                       "Name (NAME.XXXXXX unless it ends in XXXXXX; default "
                       "scoped_volume_temp_file.XXXXXX)");
    mktemp->callback([args, &context] { runMktemp(*args, context); });

    CLI::App *session = app.add_subcommand("session", "Create, find and destroy sessions");
    session->require_subcommand(1);
    CLI::App *create = session->add_subcommand(
        "create", "Create a session (local, or on --volume) and print its id");
    create->add_option("--volume", args->volume, kVolumeHelp);
    create->callback([args, &context] { runSessionCreate(*args, context); });
    CLI::App *path = session->add_subcommand("path", "Print the directory of session ID");
    path->add_option("ID", args->id, "Session id")->required();
    path->callback([args, &context] { runSessionPath(*args, context); });
    CLI::App *destroy = session->add_subcommand("destroy", "Remove session ID and its directory");
    destroy->add_option("ID", args->id, "Session id")->required();
    destroy->callback([args, &context] { runSessionDestroy(*args, context); });
}

}  // namespace telocli
