#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "cli.h"
#include "fd_io.h"
#include "telobackup/json_text.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace telocli {

namespace {

// Reads `fd` to its end, handing each piece to `take`; more than kMaxInputBytes is an error.
template <typename Take>
void readAll(int fd, const std::string &what, Take take) {
    char buffer[1 << 16];
    size_t total = 0;
    for (;;) {
        ssize_t n = readRetrying(fd, buffer, sizeof(buffer));
        if (n < 0) throw systemError(kExitInvalidFile, what);
        if (n == 0) return;
        total += static_cast<size_t>(n);
        if (total > kMaxInputBytes) {
            throw CommandError(kExitInvalidFile, what + ": larger than " +
                                                     std::to_string(kMaxInputBytes >> 20) + " MiB");
        }
        take(buffer, static_cast<size_t>(n));
    }
}

}  // namespace

std::string readInput(const std::string &path, const std::string &what) {
    int fd = 0;
    if (path != "-") {
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw systemError(errno == ENOENT ? kExitNotFound : kExitInvalidFile, what);
    }
    std::string text;
    try {
        readAll(fd, what, [&text](const char *data, size_t size) { text.append(data, size); });
    } catch (...) {
        if (fd != 0) close(fd);
        throw;
    }
    if (fd != 0) close(fd);
    return text;
}

Json::Value readJsonObject(const std::string &argument, const std::string &option) {
    std::string text = argument, source = option;
    if (!text.empty() && text[0] == '@') {
        std::string path = text.substr(1);
        source = path == "-" ? "standard input" : path;
        text = readInput(path, option + " " + source);
    }
    Json::Value value;
    if (!TELO::Backup::jsonFromString(value, text) || !value.isObject()) {
        throw CommandError(kExitUsage, source + ": expected one JSON object");
    }
    return value;
}

ConfigInput::ConfigInput(const std::string &argument) : path_(argument), name_(argument) {
    if (argument != "-") return;
    name_ = "standard input";
    const char *tmp = getenv("TMPDIR");
    std::string directory = tmp != nullptr && *tmp == '/' ? tmp : "/tmp";
    copy_.reset(new TELO::Backup::ScopedTempFile(directory + "/telobackup-util-stdin", false));
    if (!copy_->isValid()) throw systemError(kExitFailed, "cannot copy standard input");
    int fd = copy_->getFileDescripter();
    readAll(0, name_, [&](const char *data, size_t size) {
        if (!writeAll(fd, data, size)) throw systemError(kExitFailed, "cannot copy standard input");
    });
    copy_->close();
    path_ = copy_->getPath();
}

ConfigInput::~ConfigInput() = default;

}  // namespace telocli
