#include "telobackup/stringf.h"

#include <cstdio>
#include <memory>

namespace TELO {
namespace Backup {

namespace {

constexpr size_t kFirstPassSize = 128;
// Threads keep a first-pass buffer of up to this size for the lengths they format.
constexpr size_t kRetainedLimit = 64 * 1024;

// glibc's vsnprintf is very slow past the end of a too-small buffer (it hands the overflow on a
// byte at a time), so a long text formatted into 128 bytes first costs far more than a second
// pass. Each thread therefore keeps a buffer as large as its long texts were: a repeated long
// text then takes one pass and one copy. Plain thread-locals keep the short path free of any
// initialisation check.
thread_local char *retainedData = nullptr;
thread_local size_t retainedSize = 0;
thread_local bool retainedBusy = false;  // a printf extension formatting recursively
thread_local bool retainedGone = false;  // the thread's destructors have run

struct RetainedRelease {
    ~RetainedRelease() {
        delete[] retainedData;
        retainedData = nullptr;
        retainedSize = 0;
        retainedGone = true;
    }
};

void retain(size_t size) {
    if (retainedGone) return;
    thread_local RetainedRelease release;  // frees the buffer when the thread ends
    (void)release;
    char *data = new char[size];
    delete[] retainedData;
    retainedData = data;
    retainedSize = size;
}

size_t roundUpToPowerOfTwo(size_t n) {
    size_t size = kFirstPassSize;
    while (size < n) size *= 2;
    return size;
}

}  // namespace

std::string vstringf(const char *format, va_list ap) {
    char stackBuffer[kFirstPassSize];
    char *first = stackBuffer;
    size_t firstSize = sizeof(stackBuffer);
    bool useRetained = retainedSize > firstSize && !retainedBusy;
    if (useRetained) {
        first = retainedData;
        firstSize = retainedSize;
        retainedBusy = true;
    }

    va_list copy;
    va_copy(copy, ap);
    int length = vsnprintf(first, firstSize, format, copy);
    va_end(copy);
    if (useRetained) retainedBusy = false;
    if (length < 0) return std::string();
    if (static_cast<size_t>(length) < firstSize)
        return std::string(first, static_cast<size_t>(length));

    if (static_cast<size_t>(length) < kRetainedLimit && !retainedBusy) {
        retain(roundUpToPowerOfTwo(static_cast<size_t>(length) + 1));
    }
    std::string result(static_cast<size_t>(length) + 1, '\0');
    va_copy(copy, ap);
    length = vsnprintf(&result[0], result.size(), format, copy);
    va_end(copy);
    result.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return result;
}

std::string stringf(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string result = vstringf(format, ap);
    va_end(ap);
    return result;
}

}  // namespace Backup
}  // namespace TELO
