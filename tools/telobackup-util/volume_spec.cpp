#include "volume_spec.h"

#include "telobackup/temp_manager/temp_manager.h"

namespace telocli {

bool parseVolumeSpec(const std::string &text, VolumeSpec &spec) {
    spec.path.clear();
    if (text.empty() || text == "max") {
        spec.kind = VolumeSpec::kMax;
    } else if (text == "max-ext") {
        spec.kind = VolumeSpec::kMaxExt;
    } else if (text == "max-ext-btrfs") {
        spec.kind = VolumeSpec::kMaxExtBtrfs;
    } else if (text.compare(0, 5, "same:") == 0 && text.size() > 5) {
        spec.kind = VolumeSpec::kSame;
        spec.path = text.substr(5);
    } else {
        return false;
    }
    return true;
}

std::shared_ptr<TELO::Backup::FilterVolume> volumeFilterOf(const VolumeSpec &spec) {
    using TELO::Backup::TempManager;
    switch (spec.kind) {
        case VolumeSpec::kMaxExt:
            return TempManager::maxExtVolume(true);
        case VolumeSpec::kMaxExtBtrfs:
            return TempManager::maxExtBtrfsVolume(true);
        case VolumeSpec::kSame:
            return TempManager::sameVolume(spec.path);
        case VolumeSpec::kMax:
            break;
    }
    return TempManager::maxVolume(true);
}

}  // namespace telocli
