// Reading a file as configuration: never blocked by a FIFO or a device, never without bound.
#ifndef TELO_PLATFORM_SRC_CONFIG_FILE_H
#define TELO_PLATFORM_SRC_CONFIG_FILE_H

#include <cstddef>
#include <string>

namespace telo_platform {

enum class FileKind {
    kRegular,        // a regular file on a disk file system
    kRegularOrProc,  // also a file of /proc or /sys (the kernel's mount table)
};

// Reads all of `path` into `content`. The file is opened O_NONBLOCK (so a FIFO cannot stall the
// open) and read only when fstat shows a regular file, and, for kRegular, one outside /proc and
// /sys. False with errno: the open's error; EISDIR for a directory; EINVAL for any other file
// that is not what `kind` allows; EFBIG when the file holds more than `limit` bytes; the read's
// error (EAGAIN for a kernel file with nothing to read yet).
bool readConfigFile(const std::string &path, size_t limit, FileKind kind, std::string &content);

// errno's text for a failure of readConfigFile: "not a regular file" for EINVAL, "larger than
// N bytes" for EFBIG, else strerror.
std::string configFileError(int error, size_t limit);

}  // namespace telo_platform

#endif
