// The reason for a failure without a system log: each thread keeps the last error line the
// library wrote to the system log, so that hosts running where no logger listens (containers,
// test hosts) can still show why a call failed.
//
// Every call is synchronous on the caller's thread and takes no lock; the record is the
// calling thread's own.
#ifndef TELOBACKUP_LAST_ERROR_H
#define TELOBACKUP_LAST_ERROR_H

#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// The last line this thread's calls into the library wrote to the system log at LOG_ERR, as
// written, "%m" expanded: "(4711) [err] option_map:402 lock: flock(LOCK_EX) failed.
// Interrupted system call", or "network/network:120 Socket error: 111, Connection refused"
// in the short form. Lines the launcher writes on behalf of a child (under the child's pid)
// count for the thread that launched it; debug lines do not count. A line longer than 1023
// bytes is kept as its first 1023 bytes (the system log gets it whole). "" when the thread has
// written none since it started or since clearLastErrorText(). Never fails; errno unchanged.
// A failure that is not logged (most results say which are) leaves the record as it was, so
// clear it before a call to learn whether that call wrote a line:
//     TELO::Backup::clearLastErrorText();
//     if (!map.optSectionSave())
//         fprintf(stderr, "cannot save: %s\n", TELO::Backup::lastErrorText().c_str());
TELO_EXPORT std::string lastErrorText();

// Empties the calling thread's record. errno unchanged.
TELO_EXPORT void clearLastErrorText();

}  // namespace Backup
}  // namespace TELO

#endif
