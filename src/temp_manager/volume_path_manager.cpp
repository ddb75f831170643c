#include "telobackup/temp_manager/volume_path_manager.h"

#include <unistd.h>

#include <cstring>

#include "internal/syslog.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "temp_manager/volume_path_manager";
constexpr char kTmpFallback[] = "/tmp";
// Interface limit: the buffer handed to TELOShareTmpPathGet, whose size it is told.
constexpr int kShareTmpPathSize = 4095;
// The enumeration mode a filter asks the platform for unless it keeps its own.
constexpr int kDefaultEnumMode = 2;

// The temporary directory of a volume, "" (logged) when the platform cannot give one.
std::string shareTmpPath(const std::string &volumePath) {
    char buffer[kShareTmpPathSize] = {};
    if (TELOShareTmpPathGet(volumePath.c_str(), buffer, sizeof(buffer)) < 0) {
        TELO_LOG_ERR("TELOShareTmpPathGet(%s) fail, " TELO_PLATFORM_ERR_FMT, volumePath.c_str(),
                     TELO_PLATFORM_ERR_ARGS);
        return std::string();
    }
    return buffer;
}

bool isExtType(int type) {
    return type == TELO_FS_EXT3 || type == TELO_FS_EXT4;
}

}  // namespace

// ---- FilterVolume -----------------------------------------------------------------------------

FilterVolume::~FilterVolume() = default;

bool FilterVolume::getVolumeEnumParameter(int &location, int &mode) const {
    int supported = TELOVolumeSupportLocGet();
    if (supported == 0) return false;
    location = supported;
    mode = kDefaultEnumMode;
    return true;
}

std::string FilterVolume::defaultPath() const {
    return std::string();
}

// ---- The Max filters --------------------------------------------------------------------------

namespace internal {

MaxVolumeFilterBase::MaxVolumeFilterBase(bool useTmpFallback) : useTmpFallback_(useTmpFallback) {
    FilterVolume::getVolumeEnumParameter(location_, mode_);
}

MaxVolumeFilterBase::MaxVolumeFilterBase(int location, int mode, bool useTmpFallback)
    : location_(location), mode_(mode), useTmpFallback_(useTmpFallback) {}

bool MaxVolumeFilterBase::storedEnumParameter(int &location, int &mode) const {
    location = location_;
    mode = mode_;
    return true;
}

bool MaxVolumeFilterBase::acceptIfLarger(bool typeAccepted, const TELOVOLInfo &info) {
    if (!typeAccepted || info.freeBytes <= bestSize_) return false;
    bestSize_ = info.freeBytes;
    return true;
}

std::string MaxVolumeFilterBase::fallbackPath() const {
    return useTmpFallback_ ? kTmpFallback : std::string();
}

std::string MaxVolumeFilterBase::signatureOf(const char *name) const {
    return std::string(name) + ":" + std::to_string(location_) + ":" + std::to_string(mode_) + ":" +
           (useTmpFallback_ ? "1" : "0");
}

}  // namespace internal

// The three differ only in the type test, which comes first so that a refused type never
// counts its size. Each keeps its own overrides: they are the library's exported symbols.

FilterMaxVolume::FilterMaxVolume() : MaxVolumeFilterBase(false) {}
FilterMaxVolume::FilterMaxVolume(bool useTmpFallback) : MaxVolumeFilterBase(useTmpFallback) {}
FilterMaxVolume::FilterMaxVolume(int location, int mode, bool useTmpFallback)
    : MaxVolumeFilterBase(location, mode, useTmpFallback) {}
bool FilterMaxVolume::getVolumeEnumParameter(int &location, int &mode) const {
    return storedEnumParameter(location, mode);
}
bool FilterMaxVolume::isAccept(const TELOVOLInfo &info) {
    return acceptIfLarger(true, info);
}
std::string FilterMaxVolume::defaultPath() const {
    return fallbackPath();
}
std::string FilterMaxVolume::getSignature() const {
    return signatureOf("FilterMaxVolume");
}

FilterMaxExtVolume::FilterMaxExtVolume() : MaxVolumeFilterBase(false) {}
FilterMaxExtVolume::FilterMaxExtVolume(bool useTmpFallback) : MaxVolumeFilterBase(useTmpFallback) {}
FilterMaxExtVolume::FilterMaxExtVolume(int location, int mode, bool useTmpFallback)
    : MaxVolumeFilterBase(location, mode, useTmpFallback) {}
bool FilterMaxExtVolume::getVolumeEnumParameter(int &location, int &mode) const {
    return storedEnumParameter(location, mode);
}
bool FilterMaxExtVolume::isAccept(const TELOVOLInfo &info) {
    return acceptIfLarger(isExtType(info.fsType), info);
}
std::string FilterMaxExtVolume::defaultPath() const {
    return fallbackPath();
}
std::string FilterMaxExtVolume::getSignature() const {
    return signatureOf("FilterMaxExtVolume");
}

FilterMaxExtBtrfsVolume::FilterMaxExtBtrfsVolume() : MaxVolumeFilterBase(false) {}
FilterMaxExtBtrfsVolume::FilterMaxExtBtrfsVolume(bool useTmpFallback)
    : MaxVolumeFilterBase(useTmpFallback) {}
FilterMaxExtBtrfsVolume::FilterMaxExtBtrfsVolume(int location, int mode, bool useTmpFallback)
    : MaxVolumeFilterBase(location, mode, useTmpFallback) {}
bool FilterMaxExtBtrfsVolume::getVolumeEnumParameter(int &location, int &mode) const {
    return storedEnumParameter(location, mode);
}
bool FilterMaxExtBtrfsVolume::isAccept(const TELOVOLInfo &info) {
    return acceptIfLarger(isExtType(info.fsType) || info.fsType == TELO_FS_BTRFS, info);
}
std::string FilterMaxExtBtrfsVolume::defaultPath() const {
    return fallbackPath();
}
std::string FilterMaxExtBtrfsVolume::getSignature() const {
    return signatureOf("FilterMaxExtBtrfsVolume");
}

// ---- FilterSameVolume -------------------------------------------------------------------------

FilterSameVolume::FilterSameVolume(const std::string &path) {
    TELOVOLInfo info;
    memset(&info, 0, sizeof(info));
    if (TELOMountVolInfoGet(path.c_str(), &info) < 0) {
        TELO_LOG_ERR("TELOMountVolInfoGet(%s) failed, " TELO_PLATFORM_ERR_FMT, path.c_str(),
                     TELO_PLATFORM_ERR_ARGS);
        return;
    }
    volumePath_ = info.volPath;
}

bool FilterSameVolume::getVolumeEnumParameter(int &, int &) const {
    return false;
}

bool FilterSameVolume::isAccept(const TELOVOLInfo &) {
    return false;
}

std::string FilterSameVolume::defaultPath() const {
    if (volumePath_.empty()) return std::string();
    return shareTmpPath(volumePath_);
}

std::string FilterSameVolume::getSignature() const {
    return "FilterSameVolume:" + volumePath_;
}

// ---- VolumePathManager ------------------------------------------------------------------------

VolumePathManager &VolumePathManager::getInstance() {
    static VolumePathManager *instance = new VolumePathManager;
    return *instance;
}

bool VolumePathManager::getVolumePath(std::shared_ptr<FilterVolume> filter, std::string &out) {
    if (!filter) return false;
    out.clear();
    std::string signature = filter->getSignature();
    auto cached = pathCache_.find(signature);
    if (cached != pathCache_.end()) {
        out = cached->second;
        return true;
    }

    int location = 0, mode = 0;
    TELOVOLInfo *volumes = nullptr;
    if (filter->getVolumeEnumParameter(location, mode)) {
        volumes = TELOMountVolAllEnum(0, location, mode);
    }
    std::string candidate;
    for (const TELOVOLInfo *volume = volumes; volume != nullptr; volume = volume->next) {
        if (volume->volPath[0] == '\0' || volume->mounted == 0 || volume->usable == 0) continue;
        std::string tmpPath = shareTmpPath(volume->volPath);
        if (tmpPath.empty() || access(tmpPath.c_str(), W_OK) != 0) continue;
        if (filter->isAccept(*volume)) candidate = tmpPath;
    }
    if (volumes != nullptr) TELOMountVolInfoFree(volumes);
    if (!candidate.empty()) {
        out = candidate;
        pathCache_[signature] = candidate;
        return true;
    }

    out = filter->defaultPath();
    if (out.empty()) return false;
    pathCache_[signature] = out;
    return true;
}

}  // namespace Backup
}  // namespace TELO
