// The --volume values of the tool on arbitrary bytes: exactly the documented forms are
// accepted, and every accepted one makes a filter whose directory is on the one volume of a
// fixture mount table (a scratch directory), the /tmp fallback, or none. The system log of the
// library goes to the capture helper, never to the host's log.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "support/syslog_capture.h"
#include "telobackup/temp_manager/volume_path_manager.h"
#include "volume_choice.h"

using telocli::VolumeChoice;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

std::string scratch;

void removeScratch() {
    rmdir((scratch + "/vol/.telobackup-tmp").c_str());
    rmdir((scratch + "/vol").c_str());
    unlink((scratch + "/mountinfo").c_str());
    rmdir(scratch.c_str());
}

bool startsWith(const std::string &text, const std::string &head) {
    return text.compare(0, head.size(), head) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    scratch = base + "/telo-volume-fuzz.XXXXXX";
    check(mkdtemp(&scratch[0]) != nullptr);
    check(mkdir((scratch + "/vol").c_str(), 0755) == 0);
    FILE *f = fopen((scratch + "/mountinfo").c_str(), "we");
    check(f != nullptr);
    fprintf(f, "20 1 8:1 / %s/vol rw - ext4 /dev/sdz1 rw\n", scratch.c_str());
    check(fclose(f) == 0);
    setenv("TELO_MOUNTINFO", (scratch + "/mountinfo").c_str(), 1);
    atexit(removeScratch);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    VolumeChoice choice;
    bool parsed = telocli::parseVolumeChoice(text, choice);
    bool documented = text.empty() || text == "max" || text == "max-ext" ||
                      text == "max-ext-btrfs" || (startsWith(text, "same:") && text.size() > 5);
    check(parsed == documented);
    if (!parsed) return 0;
    check((choice.kind == VolumeChoice::kSame) == startsWith(text, "same:"));
    check(choice.kind == VolumeChoice::kSame ? choice.path == text.substr(5) : choice.path.empty());

    std::string volume = scratch + "/vol";
    std::shared_ptr<TELO::Backup::FilterVolume> filter = telocli::volumeFilterOf(choice);
    check(filter != nullptr);
    std::string directory;
    if (TELO::Backup::VolumePathManager::getInstance().getVolumePath(filter, directory)) {
        check(directory.empty() || directory == volume + "/.telobackup-tmp" || directory == "/tmp");
    }
    if (choice.kind == VolumeChoice::kSame) {
        std::string signature = filter->getSignature();
        check(signature == "FilterSameVolume:" || signature == "FilterSameVolume:" + volume);
    }
    testsupport::clearCapturedLines();
    return 0;
}
