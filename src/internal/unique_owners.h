// Owners for the two C resources the library holds besides descriptors: stdio streams and
// malloc'ed buffers (from realpath, getline and the like). Both keep errno when they release.
#ifndef TELO_SRC_INTERNAL_UNIQUE_OWNERS_H
#define TELO_SRC_INTERNAL_UNIQUE_OWNERS_H

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "errno_saver.h"

namespace TELO {
namespace Backup {
namespace internal {

struct FileCloser {
    void operator()(FILE *file) const {
        ErrnoSaver keep;
        std::fclose(file);
    }
};

struct MallocFreer {
    void operator()(void *memory) const { std::free(memory); }
};

// A stream closed when its owner goes; release() before an fclose whose result matters.
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// A buffer from malloc, freed when its owner goes.
template <typename T>
using UniqueMalloc = std::unique_ptr<T, MallocFreer>;

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
