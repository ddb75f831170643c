// volumes: what the platform sees, and where each volume filter would put temporary data. It only
// reads: a volume's temporary directory is made when a temporary is first placed there.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>

#include "cli.h"
#include "telo/platform.h"
#include "telobackup/stringf.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace telocli {

namespace {

// The generic platform's temporary directory of a volume (TELOShareTmpPathGet).
constexpr char kVolumeTmpDir[] = ".telobackup-tmp";

const char *typeName(int code) {
    static const char *const kNames[] = {"fat", "ext2/3",     "ext4",    "btrfs",
                                         "xfs", "exfat/ntfs", "network", "other"};
    return code >= 0 && code <= 7 ? kNames[code] : "unknown";
}

// A path for one cell of the text table: control bytes and backslashes as \xHH, so a crafted
// mount point can neither break the table nor drive the terminal.
std::string printable(const std::string &path) {
    std::string out;
    for (unsigned char c : path) {
        if (c < 0x20 || c == 0x7f || c == '\\') {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// The temporary directory of `volume` as the volume path manager would choose it, without making
// it: the existing writable directory, or the one that would be made in a writable volume root.
// Empty when the volume could not take temporaries.
std::string temporaryDirectory(const TELOVOLInfo &volume) {
    if (volume.volPath[0] != '/' || volume.mounted == 0 || volume.usable == 0) return "";
    std::string root = volume.volPath;
    std::string directory = (root == "/" ? "" : root) + "/" + kVolumeTmpDir;
    struct stat st;
    if (lstat(directory.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode) && access(directory.c_str(), W_OK) == 0 ? directory : "";
    }
    return access(root.c_str(), W_OK) == 0 ? directory : "";
}

void run(const Context &context) {
    TELOVOLInfo *list = TELOMountVolAllEnum(0, TELO_VOL_LOCATION_DISK, 2);
    if (list == nullptr && TLIBCErrGet() != TELO_ERR_NOT_FOUND) {
        throw CommandError(TLIBCErrGet() == TELO_ERR_NO_MEMORY ? kExitFailed : kExitInvalidFile,
                           "volumes: " + platformFailure());
    }
    using TELO::Backup::TempManager;
    const std::pair<const char *, std::shared_ptr<TELO::Backup::FilterVolume>> filters[] = {
        {"max", TempManager::maxVolume(false)},
        {"max-ext", TempManager::maxExtVolume(false)},
        {"max-ext-btrfs", TempManager::maxExtBtrfsVolume(false)},
    };
    Json::Value volumes(Json::arrayValue);
    Json::Value choices(Json::objectValue);
    for (const auto &filter : filters) choices[filter.first] = Json::Value();
    for (const TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        Json::Value volume;
        volume["path"] = v->volPath;
        volume["type"] = typeName(v->fsType);
        volume["typeCode"] = v->fsType;
        volume["freeBytes"] = Json::UInt64(v->freeBytes);
        volume["usable"] = v->usable != 0;
        volumes.append(volume);
        // As the manager walks the volumes: each filter keeps the last volume it accepts.
        std::string directory = temporaryDirectory(*v);
        if (directory.empty()) continue;
        for (const auto &filter : filters) {
            if (filter.second->isAccept(*v)) choices[filter.first] = directory;
        }
    }
    TELOMountVolInfoFree(list);

    if (context.json) {
        Json::Value out;
        out["volumes"] = volumes;
        out["choices"] = choices;
        printJson(out);
        return;
    }
    using TELO::Backup::stringf;
    std::string text = stringf("%-32s %-10s %18s %s\n", "VOLUME", "TYPE", "FREE BYTES", "USABLE");
    for (const Json::Value &v : volumes) {
        text += stringf("%-32s %-10s %18llu %s\n", printable(v["path"].asString()).c_str(),
                        v["type"].asCString(),
                        static_cast<unsigned long long>(v["freeBytes"].asUInt64()),
                        v["usable"].asBool() ? "yes" : "no");
    }
    if (volumes.empty()) text += "(no volume)\n";
    text += stringf("\n%-16s %s\n", "FILTER", "TEMPORARY DIRECTORY");
    for (const auto &filter : filters) {
        const Json::Value &choice = choices[filter.first];
        std::string where = "(none)";
        if (!choice.isNull()) {
            struct stat st;
            bool made = lstat(choice.asCString(), &st) == 0;
            where = printable(choice.asString()) + (made ? "" : " (made on first use)");
        }
        text += stringf("%-16s %s\n", filter.first, where.c_str());
    }
    writeOut(text.data(), text.size());
}

}  // namespace

void addVolumesCommand(CLI::App &app, Context &context) {
    CLI::App *command = app.add_subcommand(
        "volumes",
        "List the volumes the platform sees (type, free space) and the temporary directory each "
        "volume filter would choose. Only reads: a volume's .telobackup-tmp is made when a "
        "temporary is first placed there");
    command->callback([&context] { run(context); });
}

}  // namespace telocli
