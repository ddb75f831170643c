// Which mounts of the mount table are volumes of the generic server.
#ifndef TELO_PLATFORM_SRC_VOLUME_RULES_H
#define TELO_PLATFORM_SRC_VOLUME_RULES_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "mount_table.h"

namespace telo_platform {

// True when the entry is of a disk file system that may hold application data: a known disk
// type or a block-device source; not a read-only image, a network or pseudo file system, a
// loop-backed image of any type, or an EFI system partition (FAT at /boot/efi or /efi).
bool isDiskMount(const MountEntry &entry);

// True when both entries are mounts of one file system: the same device, or in tables without
// devices the same source.
bool sameFileSystem(const MountEntry &a, const MountEntry &b);

// The volumes of a table as indexes into `entries`, in table order: the visible disk mounts on
// directories (`isDirectory` says which mount points are), one per file system. Of several
// mounts of one file system (bind mounts, btrfs subvolumes) the mount of its root wins, else the
// shortest mount point, else the first in the table.
std::vector<size_t> selectVolumes(const std::vector<MountEntry> &entries,
                                  const std::vector<bool> &hidden,
                                  const std::function<bool(const std::string &)> &isDirectory);

}  // namespace telo_platform

#endif
