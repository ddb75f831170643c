// Choosing the storage volume that holds temporary data: volume filters, and the process-wide
// manager that turns a filter into a directory and remembers the answer per filter signature.
//
// Every call is synchronous on the caller's thread and takes no lock: the manager's cache is not
// synchronised, so it must not be used from several threads at once.
#ifndef TELOBACKUP_TEMP_MANAGER_VOLUME_PATH_MANAGER_H
#define TELOBACKUP_TEMP_MANAGER_VOLUME_PATH_MANAGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "telo/platform.h"
#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// Which volume should hold temporary data. Always held through std::shared_ptr<FilterVolume>.
class TELO_EXPORT FilterVolume {
  public:
    virtual ~FilterVolume();

    // The parameters to enumerate volumes with. This base version asks the platform for its
    // volume location (TELOVolumeSupportLocGet): a result of 0 gives false (no enumeration),
    // otherwise location = that result, mode = 2 and true. Nothing is logged.
    virtual bool getVolumeEnumParameter(int &location, int &mode) const;

    // Called once per candidate volume of an enumeration; true accepts it. May update the
    // filter's own state.
    virtual bool isAccept(const TELOVOLInfo &info) = 0;

    // The directory to use when no volume was chosen; "" means none. Base: "".
    virtual std::string defaultPath() const;

    // Text identifying the filter's criteria; the manager's cache key.
    virtual std::string getSignature() const = 0;
};

namespace internal {

// Not part of the interface: the state and rules the three Max filters below share. Use the
// filters through FilterVolume.
class MaxVolumeFilterBase : public FilterVolume {
  protected:
    // location and mode from the platform (both 0 when it reports no volume location).
    explicit MaxVolumeFilterBase(bool useTmpFallback);
    MaxVolumeFilterBase(int location, int mode, bool useTmpFallback);

    // The stored location and mode; true.
    bool storedEnumParameter(int &location, int &mode) const;
    // False when the volume's type is refused (its size then does not count); else true when
    // its free space is strictly larger than the largest accepted before, which it becomes.
    bool acceptIfLarger(bool typeAccepted, const TELOVOLInfo &info);
    // "/tmp" with the fallback, else "".
    std::string fallbackPath() const;
    // "<name>:<location>:<mode>:<1|0>".
    std::string signatureOf(const char *name) const;

  private:
    int location_ = 0;
    int mode_ = 0;
    bool useTmpFallback_ = false;
    uint64_t bestSize_ = 0;
};

}  // namespace internal

// The volume with the most free space (the first of equals). A volume is accepted when its free
// space is strictly larger than the largest this object accepted before (in any enumeration).
class TELO_EXPORT FilterMaxVolume : public internal::MaxVolumeFilterBase {
  public:
    // location and mode from the platform (both 0 when it reports no volume location); no
    // fallback.
    FilterMaxVolume();
    // The same with "/tmp" as the fallback when `useTmpFallback` is true.
    explicit FilterMaxVolume(bool useTmpFallback);
    // All three as given; no platform call.
    FilterMaxVolume(int location, int mode, bool useTmpFallback);

    // The stored location and mode; true.
    bool getVolumeEnumParameter(int &location, int &mode) const override;
    bool isAccept(const TELOVOLInfo &info) override;
    // "/tmp" with the fallback, else "".
    std::string defaultPath() const override;
    // "FilterMaxVolume:<location>:<mode>:<1|0>", for example "FilterMaxVolume:1:2:1".
    std::string getSignature() const override;
};

// As FilterMaxVolume, among ext2/ext3/ext4 volumes only (type codes 1 and 2); a volume of
// another type is refused without counting its size. Signature
// "FilterMaxExtVolume:<location>:<mode>:<1|0>".
class TELO_EXPORT FilterMaxExtVolume : public internal::MaxVolumeFilterBase {
  public:
    FilterMaxExtVolume();
    explicit FilterMaxExtVolume(bool useTmpFallback);
    FilterMaxExtVolume(int location, int mode, bool useTmpFallback);

    bool getVolumeEnumParameter(int &location, int &mode) const override;
    bool isAccept(const TELOVOLInfo &info) override;
    std::string defaultPath() const override;
    std::string getSignature() const override;
};

// As FilterMaxVolume, among ext and btrfs volumes only (type codes 1, 2 and 3). Signature
// "FilterMaxExtBtrfsVolume:<location>:<mode>:<1|0>".
class TELO_EXPORT FilterMaxExtBtrfsVolume : public internal::MaxVolumeFilterBase {
  public:
    FilterMaxExtBtrfsVolume();
    explicit FilterMaxExtBtrfsVolume(bool useTmpFallback);
    FilterMaxExtBtrfsVolume(int location, int mode, bool useTmpFallback);

    bool getVolumeEnumParameter(int &location, int &mode) const override;
    bool isAccept(const TELOVOLInfo &info) override;
    std::string defaultPath() const override;
    std::string getSignature() const override;
};

// The volume that holds a given path. Never enumerates: its answer is its default path.
class TELO_EXPORT FilterSameVolume : public FilterVolume {
  public:
    // Asks the platform for the volume holding `path` (TELOMountVolInfoGet). On failure logs
    // "(pid) [err] temp_manager/volume_path_manager:line TELOMountVolInfoGet(<path>) failed,
    // [0x<code> <file>:<line>]" and the volume path stays empty. Never fails otherwise.
    explicit FilterSameVolume(const std::string &path);

    // false: this filter never enumerates.
    bool getVolumeEnumParameter(int &location, int &mode) const override;
    // false for every volume.
    bool isAccept(const TELOVOLInfo &info) override;
    // The volume's temporary directory (TELOShareTmpPathGet), "" when the volume is unknown or
    // the platform fails (then logged as "TELOShareTmpPathGet(<volume>) fail, [...]").
    std::string defaultPath() const override;
    // "FilterSameVolume:" followed by the volume path ("FilterSameVolume:" when unknown).
    std::string getSignature() const override;

  private:
    std::string volumePath_;
};

// Turns filters into directories, once per filter signature for the life of the process.
class TELO_EXPORT VolumePathManager {
  public:
    // The one instance of the process, made on first use (thread-safe) and never destroyed, so
    // that late exit handlers can still use it.
    static VolumePathManager &getInstance();

    // Writes the directory chosen for `filter` into `out` and returns true, or returns false
    // with `out` empty when there is none (`out` is untouched for a null filter). A signature
    // seen before is answered from the cache without any platform call. Otherwise the volumes
    // the filter asks for are walked in the platform's order, skipping those with an empty
    // path, a zero status field, or a temporary directory that is missing or not writable; the
    // last one the filter accepts wins. Without one, the filter's default path is used; "" is
    // not cached. Platform failures lead to the fallback; a failed temporary-directory lookup
    // is logged ("TELOShareTmpPathGet(<volume>) fail, [...]").
    bool getVolumePath(std::shared_ptr<FilterVolume> filter, std::string &out);

    VolumePathManager(const VolumePathManager &) = delete;
    VolumePathManager &operator=(const VolumePathManager &) = delete;

  private:
    VolumePathManager() = default;
    std::map<std::string, std::string> pathCache_;
};

}  // namespace Backup
}  // namespace TELO

#endif
