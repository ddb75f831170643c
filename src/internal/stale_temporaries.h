// Temporaries of a configuration file that rewrites killed on the way left behind.
#ifndef TELO_SRC_INTERNAL_STALE_TEMPORARIES_H
#define TELO_SRC_INTERNAL_STALE_TEMPORARIES_H

#include <string>

namespace TELO {
namespace Backup {
namespace internal {

// Seconds after its last change that a leftover temporary counts as stale: no live rewrite
// takes that long between two writes.
constexpr long kStaleTemporaryAge = 10 * 60;

// Removes the temporaries of the configuration file `file` (found as openConfigFile finds it)
// that are stale: entries of its directory named the file's name, a dot and six characters of
// mkstemp's alphabet (A-Z, a-z, 0-9), that are regular files of the caller's effective uid not
// changed for kStaleTemporaryAge seconds. Links are not followed, and every step is relative
// to the directory's descriptor. Only a writer that holds the file's lock may call it, so that
// no live rewrite of its own kind is disturbed. Returns how many were removed; failures are
// left for the next writer (errno is kept).
int removeStaleTemporaries(const std::string &file);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
