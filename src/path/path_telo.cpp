#include "telobackup/path/path_telo.h"

#include <cstring>

#include "internal/syslog.h"
#include "telo/platform.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "path/path_telo";
constexpr char kEaDir[] = "@eaDir";
constexpr size_t kEaDirLength = sizeof(kEaDir) - 1;
// Sizes of the buffers handed to the platform's share lookup.
constexpr int kShareNameSize = 492;
constexpr int kSharePathSize = 4095;

}  // namespace

std::string Path::getShareName(const std::string &path) {
    char name[kShareNameSize] = {};
    char sharePath[kSharePathSize] = {};
    if (TELOShareNamePathGet(path.c_str(), name, kShareNameSize, sharePath, kSharePathSize) < 0) {
        TELO_LOG_ERR("Error: getting share path of [%s] failed" TELO_PLATFORM_ERR_FMT, path.c_str(),
                     TELO_PLATFORM_ERR_ARGS);
        return std::string();
    }
    return std::string(name, strnlen(name, sizeof(name)));
}

bool Path::isInTeloEaDir(const std::string &path) {
    for (size_t at = path.find(kEaDir); at != std::string::npos; at = path.find(kEaDir, at + 1)) {
        size_t end = at + kEaDirLength;
        if ((at == 0 || path[at - 1] == '/') && (end == path.size() || path[end] == '/')) {
            return true;
        }
    }
    return false;
}

}  // namespace Backup
}  // namespace TELO
