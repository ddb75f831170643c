// The --volume values of mktemp and session create: max (the volume with the most free space),
// max-ext (ext volumes only), max-ext-btrfs (ext and btrfs) or same:PATH (the volume holding
// PATH); no value means max.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_VOLUME_CHOICE_H
#define TELO_TOOLS_TELOBACKUP_UTIL_VOLUME_CHOICE_H

#include <memory>
#include <string>

#include "telobackup/temp_manager/volume_path_manager.h"

namespace telocli {

struct VolumeChoice {
    enum Kind { kMax, kMaxExt, kMaxExtBtrfs, kSame };
    Kind kind = kMax;
    std::string path;  // of kSame, never empty
};

// Reads a --volume value; false for anything but the forms above. Throws nothing but
// std::bad_alloc.
bool parseVolumeChoice(const std::string &text, VolumeChoice &choice);

// The filter a choice names; the max filters fall back to /tmp when no volume qualifies.
std::shared_ptr<TELO::Backup::FilterVolume> volumeFilterOf(const VolumeChoice &choice);

}  // namespace telocli

#endif
