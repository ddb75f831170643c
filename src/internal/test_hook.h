// A seam for tests that must act at one precise moment inside a file operation (another user
// swapping a name between two system calls). Null outside tests; the library's symbols are
// hidden, so only a program linked with the library's objects can set it. The cost where unused
// is one test of a pointer.
#ifndef TELO_SRC_INTERNAL_TEST_HOOK_H
#define TELO_SRC_INTERNAL_TEST_HOOK_H

namespace TELO {
namespace Backup {
namespace internal {

enum class HookPoint {
    // The tree remover has opened a directory (`path`, `depth` levels below the top).
    kDirectoryOpened,
    // A rewrite of `path` has opened it; its temporary is made next.
    kBeforeTempCreate,
    // A temporary the library wrote is about to be checked and renamed over `path`.
    kBeforeTempCheck,
    // The temporary has been checked; the rename over `path` comes next.
    kBeforeTempRename,
};

using TestHook = void (*)(HookPoint point, const char *path, int depth);

inline TestHook testHook = nullptr;

inline void runTestHook(HookPoint point, const char *path, int depth = 0) {
    if (__builtin_expect(testHook != nullptr, 0)) testHook(point, path, depth);
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
