// volumes: what the platform sees, and where each volume filter would put temporary data.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "cli.h"
#include "telo/platform.h"
#include "telobackup/stringf.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace telocli {

namespace {

const char *typeName(int code) {
    static const char *const kNames[] = {"fat", "ext2/3",     "ext4",    "btrfs",
                                         "xfs", "exfat/ntfs", "network", "other"};
    return code >= 0 && code <= 7 ? kNames[code] : "unknown";
}

void run(const Context &context) {
    Json::Value volumes(Json::arrayValue);
    int location = TELOVolumeSupportLocGet();
    TELOVOLInfo *list = location != 0 ? TELOMountVolAllEnum(0, location, 2) : nullptr;
    for (const TELOVOLInfo *v = list; v != nullptr; v = v->next) {
        Json::Value volume;
        volume["path"] = v->volPath;
        volume["type"] = typeName(v->fsType);
        volume["typeCode"] = v->fsType;
        volume["freeBytes"] = Json::UInt64(v->freeBytes);
        volume["usable"] = v->usable != 0;
        volumes.append(volume);
    }
    TELOMountVolInfoFree(list);

    using TELO::Backup::TempManager;
    const std::pair<const char *, std::shared_ptr<TELO::Backup::FilterVolume>> filters[] = {
        {"max", TempManager::maxVolume(false)},
        {"max-ext", TempManager::maxExtVolume(false)},
        {"max-ext-btrfs", TempManager::maxExtBtrfsVolume(false)},
    };
    Json::Value choices(Json::objectValue);
    for (const auto &filter : filters) {
        std::string directory;
        bool chosen =
            TELO::Backup::VolumePathManager::getInstance().getVolumePath(filter.second, directory);
        choices[filter.first] = chosen ? Json::Value(directory) : Json::Value();
    }

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
        text += stringf("%-32s %-10s %18llu %s\n", v["path"].asCString(), v["type"].asCString(),
                        static_cast<unsigned long long>(v["freeBytes"].asUInt64()),
                        v["usable"].asBool() ? "yes" : "no");
    }
    if (volumes.empty()) text += "(no volume)\n";
    text += stringf("\n%-16s %s\n", "FILTER", "TEMPORARY DIRECTORY");
    for (const auto &filter : filters) {
        const Json::Value &choice = choices[filter.first];
        text +=
            stringf("%-16s %s\n", filter.first, choice.isNull() ? "(none)" : choice.asCString());
    }
    writeOut(text.data(), text.size());
}

}  // namespace

void addVolumesCommand(CLI::App &app, Context &context) {
    CLI::App *command = app.add_subcommand(
        "volumes",
        "List the volumes the platform sees (type, free space) and the temporary "
        "directory each volume filter would choose (a volume's directory "
        ".telobackup-tmp is made when it is first chosen)");
    command->callback([&context] { run(context); });
}

}  // namespace telocli
