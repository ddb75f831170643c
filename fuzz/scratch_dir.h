// A private scratch directory for fuzz targets that need real files, removed at exit.
#ifndef TELO_FUZZ_SCRATCH_DIR_H
#define TELO_FUZZ_SCRATCH_DIR_H

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace fuzzsupport {

inline void check(bool condition, const char *what) {
    if (!condition) {
        fprintf(stderr, "invariant broken: %s\n", what);
        abort();
    }
}

inline void removeScratch();

// Made on first use, in /dev/shm when it is writable; never destroyed, so that the exit
// handler can still use it.
inline const std::string &scratchDir() {
    static const std::string *dir = [] {
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        auto *path = new std::string(base + "/telo-platform-fuzz.XXXXXX");
        check(mkdtemp(&(*path)[0]) != nullptr, "mkdtemp");
        atexit(removeScratch);
        return path;
    }();
    return *dir;
}

// Removes the files of the scratch directory (it holds no subdirectories) and the directory.
inline void removeScratch() {
    DIR *dir = opendir(scratchDir().c_str());
    while (struct dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
        if (entry->d_name[0] != '.') unlink((scratchDir() + "/" + entry->d_name).c_str());
    }
    if (dir != nullptr) closedir(dir);
    rmdir(scratchDir().c_str());
}

inline void writeText(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace fuzzsupport

#endif
