#include "volume_choice.h"

#include "telobackup/temp_manager/temp_manager.h"

namespace telocli {

bool parseVolumeChoice(const std::string &text, VolumeChoice &choice) {
    choice.path.clear();
    if (text.empty() || text == "max") {
        choice.kind = VolumeChoice::kMax;
    } else if (text == "max-ext") {
        choice.kind = VolumeChoice::kMaxExt;
    } else if (text == "max-ext-btrfs") {
        choice.kind = VolumeChoice::kMaxExtBtrfs;
    } else if (text.compare(0, 5, "same:") == 0 && text.size() > 5) {
        choice.kind = VolumeChoice::kSame;
        choice.path = text.substr(5);
    } else {
        return false;
    }
    return true;
}

std::shared_ptr<TELO::Backup::FilterVolume> volumeFilterOf(const VolumeChoice &choice) {
    using TELO::Backup::TempManager;
    switch (choice.kind) {
        case VolumeChoice::kMaxExt:
            return TempManager::maxExtVolume(true);
        case VolumeChoice::kMaxExtBtrfs:
            return TempManager::maxExtBtrfsVolume(true);
        case VolumeChoice::kSame:
            return TempManager::sameVolume(choice.path);
        case VolumeChoice::kMax:
            break;
    }
    return TempManager::maxVolume(true);
}

}  // namespace telocli
