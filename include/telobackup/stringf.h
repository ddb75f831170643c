// printf-style construction of std::string.
//
// Every call is synchronous on the caller's thread and takes no lock. The format follows the
// system's vsnprintf exactly.
#ifndef TELOBACKUP_STRINGF_H
#define TELOBACKUP_STRINGF_H

#include <cstdarg>
#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// Formats the arguments like printf and returns the text. Results of up to 127 bytes take one
// formatting pass; longer ones at most two: a thread keeps a buffer as large as the longest text
// below 64 KiB it has formatted (freed when the thread ends), so repeated long texts take one.
// A format that vsnprintf rejects gives "" (nothing is logged). Throws std::bad_alloc when the
// result cannot be allocated. errno is as vsnprintf left it. Example: stringf("%s=%d", "a", 1) ==
// "a=1".
TELO_EXPORT std::string stringf(const char *format, ...) __attribute__((format(printf, 1, 2)));

// stringf with a va_list; `ap` is not consumed (the function works on copies of it).
TELO_EXPORT std::string vstringf(const char *format, va_list ap)
    __attribute__((format(printf, 1, 0)));

}  // namespace Backup
}  // namespace TELO

#endif
