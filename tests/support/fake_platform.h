// A fake of the platform layer for unit tests of the library: every function counts its calls,
// can be switched to fail (recording the error triple as a real failure would), and otherwise
// returns outcomes the test chose.
#ifndef TELO_TESTS_SUPPORT_FAKE_PLATFORM_H
#define TELO_TESTS_SUPPORT_FAKE_PLATFORM_H

#include <map>
#include <string>
#include <vector>

#include "telo/platform.h"

namespace fakeplatform {

// How often the platform function `name` (for example "TELOGetFSType") was called.
int calls(const std::string &name);
// Makes `name` fail until reset(), recording `errorCode` in the error triple.
void setFail(const std::string &name, unsigned int errorCode = TELO_ERR_SYSTEM);

// A volume the fake enumerates.
struct Volume {
    std::string path;
    int fsType = TELO_FS_EXT4;
    unsigned long long freeBytes = 0;
    int mounted = 1;
    int usable = 1;
};

// Outcomes of the functions that do not fail.
struct Outcomes {
    int fsType = TELO_FS_EXT4;  // TELOGetFSType
    int aclSupport = 0;         // TELOACLIsSupport

    // Volumes: TELOVolumeSupportLocGet gives volumeLocation; TELOMountVolAllEnum lists
    // `volumes` (none: NULL with TELO_ERR_NOT_FOUND); TELOMountVolInfoGet finds the volume of a
    // path in `volumeOfPath` (absent: TELO_ERR_NOT_FOUND); TELOShareTmpPathGet answers from
    // `shareTmpPaths` (absent: "<volume>/.telobackup-tmp", not created).
    int volumeLocation = TELO_VOL_LOCATION_DISK;
    std::vector<Volume> volumes;
    std::map<std::string, std::string> volumeOfPath;
    std::map<std::string, std::string> shareTmpPaths;
    // ---- Shares and name lookup ----
    // TELOShareNamePathGet writes these, cut to the buffer sizes.
    std::string shareName = "share";
    std::string sharePath = "/share";
    // TELONetLookupIP returns these in order, at most `capacity` of them; none fails with
    // TELO_ERR_LOOKUP. BlTLIBIsIpAddr and BlTLIBIsv6IpAddrValid classify as the real ones do.
    std::vector<std::string> lookupAddresses{"127.0.0.1"};
};
Outcomes &outcomes();

// Back to zero counts, no failures, default outcomes and an empty error triple.
void reset();

}  // namespace fakeplatform

#endif
