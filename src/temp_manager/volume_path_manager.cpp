#include "telobackup/temp_manager/volume_path_manager.h"

#include <unistd.h>

#include <cstring>

#include "internal/syslog.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "temp_manager/volume_path_manager";
constexpr char kTmpFallback[] = "/tmp";

// The temporary directory of a volume, "" (logged) when the platform cannot give one.
std::string shareTmpPath(const std::string &volumePath) {
    char buffer[4095] = {};
    if (TELOShareTmpPathGet(volumePath.c_str(), buffer, sizeof(buffer)) < 0) {
        TELO_LOG_ERR("TELOShareTmpPathGet(%s) fail, " TELO_PLATFORM_ERR_FMT, volumePath.c_str(),
                     TELO_PLATFORM_ERR_ARGS);
        return std::string();
    }
    return buffer;
}

std::string maxSignature(const char *prefix, int location, int mode, bool fallback) {
    return std::string(prefix) + ":" + std::to_string(location) + ":" + std::to_string(mode) + ":" +
           (fallback ? "1" : "0");
}

// Acceptance of the Max filters: a strictly larger free space than the best so far.
bool acceptLarger(const TELOVOLInfo &info, uint64_t &bestSize) {
    uint64_t size = info.freeBytes;
    if (size <= bestSize) return false;
    bestSize = size;
    return true;
}

bool anyType(int) {
    return true;
}
bool extType(int type) {
    return type == TELO_FS_EXT3 || type == TELO_FS_EXT4;
}
bool extOrBtrfsType(int type) {
    return extType(type) || type == TELO_FS_BTRFS;
}

}  // namespace

// ---- FilterVolume -----------------------------------------------------------------------------

FilterVolume::~FilterVolume() = default;

bool FilterVolume::getVolumeEnumParameter(int &location, int &mode) const {
    int supported = TELOVolumeSupportLocGet();
    if (supported == 0) return false;
    location = supported;
    mode = 2;
    return true;
}

std::string FilterVolume::defaultPath() const {
    return std::string();
}

// ---- The Max filters --------------------------------------------------------------------------

// The three Max filters have the same fields and differ only in the type test (which comes
// first, so a refused type never counts its size); the macro keeps their definitions in one
// place.
#define TELO_DEFINE_MAX_FILTER(Class, typeTest)                                \
    Class::Class() {                                                           \
        FilterVolume::getVolumeEnumParameter(location_, mode_);                \
    }                                                                          \
    Class::Class(bool useTmpFallback) : useTmpFallback_(useTmpFallback) {      \
        FilterVolume::getVolumeEnumParameter(location_, mode_);                \
    }                                                                          \
    Class::Class(int location, int mode, bool useTmpFallback)                  \
        : location_(location), mode_(mode), useTmpFallback_(useTmpFallback) {} \
    bool Class::getVolumeEnumParameter(int &location, int &mode) const {       \
        location = location_;                                                  \
        mode = mode_;                                                          \
        return true;                                                           \
    }                                                                          \
    bool Class::isAccept(const TELOVOLInfo &info) {                            \
        return typeTest(info.fsType) && acceptLarger(info, bestSize_);         \
    }                                                                          \
    std::string Class::defaultPath() const {                                   \
        return useTmpFallback_ ? kTmpFallback : std::string();                 \
    }                                                                          \
    std::string Class::getSignature() const {                                  \
        return maxSignature(#Class, location_, mode_, useTmpFallback_);        \
    }

TELO_DEFINE_MAX_FILTER(FilterMaxVolume, anyType)
TELO_DEFINE_MAX_FILTER(FilterMaxExtVolume, extType)
TELO_DEFINE_MAX_FILTER(FilterMaxExtBtrfsVolume, extOrBtrfsType)

#undef TELO_DEFINE_MAX_FILTER

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
