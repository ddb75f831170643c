#include "section_config/line_scanner.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "internal/errno_saver.h"
#include "internal/syslog.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// Every part of the section config module logs under the one source name it always had.
constexpr char kLogSource[] = "section_config";
constexpr size_t kReadChunk = 64 * 1024;
// The smallest buffer, so that a line of a tiny file does not make it grow at once.
constexpr size_t kMinBuffer = 256;

}  // namespace

UniqueFile openConfigStream(const std::string &path, int flags, const char *mode,
                            ConfigFile &file) {
    if (!openConfigFile(path, flags, 0666, file)) return nullptr;
    UniqueFile stream(fdopen(file.fd.get(), mode));
    if (!stream) return nullptr;
    file.fd.release();
    __fsetlocking(stream.get(), FSETLOCKING_BYCALLER);
    return stream;
}

LineReader::LineReader(FILE *stream) : stream_(stream), capacity_(kReadChunk) {
    // A small file is read whole in one call, without a larger buffer than it needs.
    struct stat64 st;
    off64_t position = ftello64(stream);
    if (fstat64(fileno(stream), &st) == 0 && S_ISREG(st.st_mode) && position >= 0 &&
        st.st_size - position < static_cast<off64_t>(kReadChunk)) {
        capacity_ = std::max<size_t>(static_cast<size_t>(st.st_size - position) + 1, kMinBuffer);
    }
    buffer_.reset(static_cast<char *>(malloc(capacity_ + 1)));
    if (!buffer_) throw std::bad_alloc();
}

void LineReader::fill() {
    if (begin_ > 0) {
        memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
        end_ -= begin_;
        scan_ -= begin_;
        begin_ = 0;
    }
    if (end_ == capacity_) {
        char *grown = static_cast<char *>(realloc(buffer_.get(), capacity_ * 2 + 1));
        if (grown == nullptr) throw std::bad_alloc();
        buffer_.release();
        buffer_.reset(grown);
        capacity_ *= 2;
    }
    char *space = buffer_.get() + end_;
    size_t wanted = std::min(kReadChunk, capacity_ - end_);
    size_t got = fread(space, 1, wanted, stream_);
    if (!nulSeen_ && memchr(space, '\0', got) != nullptr) nulSeen_ = true;
    end_ += got;
    if (got < wanted) {
        eof_ = true;
        if (ferror(stream_)) readErrno_ = errno;
    }
}

void LineReader::giveBack() {
    if (end_ == begin_) return;
    ErrnoSaver keep;
    fseeko64(stream_, -static_cast<off64_t>(end_ - begin_), SEEK_CUR);
}

bool LineReader::checkRead() const {
    int failed = ferror(stream_);
    if (failed == 0) return true;
    errno = readErrno_;
    TELO_LOG_ERR("read fd failed [%d]", failed);
    return false;
}

void classifyLine(char *text, size_t length, bool mayHoldNul, SectionConfig::LineInfo &info) {
    if (mayHoldNul) {
        if (const void *nul = memchr(text, '\0', length)) {
            length = static_cast<size_t>(static_cast<const char *>(nul) - text);
        }
    }
    size_t start = 0;
    while (start < length && isLineBlank(text[start])) ++start;
    while (length > start && isLineBlank(text[length - 1])) --length;
    text[length] = '\0';
    char *trimmed = text + start;
    size_t size = length - start;

    info.line = trimmed;
    info.key = nullptr;
    info.value = nullptr;
    if (size == 0) {
        info.type = SectionConfig::LINE_BLANK;
    } else if (trimmed[0] == '#') {
        info.type = SectionConfig::LINE_COMMENT;
    } else if (trimmed[0] == '[') {
        if (size >= 2 && trimmed[size - 1] == ']') {
            info.sectionName.assign(trimmed + 1, size - 2);
            info.section = info.sectionName.c_str();
            info.type = SectionConfig::LINE_SECTION;
        } else {
            info.type = SectionConfig::LINE_INVALID;
        }
    } else if (char *equals = static_cast<char *>(memchr(trimmed, '=', size))) {
        char *keyEnd = equals;
        while (keyEnd > trimmed && isLineBlank(keyEnd[-1])) --keyEnd;
        *keyEnd = '\0';
        char *value = equals + 1;
        while (isLineBlank(*value)) ++value;
        info.key = trimmed;
        info.value = value;
        info.line = nullptr;
        info.type = SectionConfig::LINE_KEY_VALUE;
    } else {
        info.type = SectionConfig::LINE_INVALID;
    }
}

bool verbatimLineKind(const char *raw, size_t length, bool mayHoldNul, int &type) {
    if (length == 0) {
        type = SectionConfig::LINE_BLANK;
        return true;
    }
    if (isLineBlank(raw[0]) || isLineBlank(raw[length - 1])) return false;
    if (mayHoldNul && memchr(raw, '\0', length) != nullptr) return false;
    if (raw[0] == '#') {
        type = SectionConfig::LINE_COMMENT;
    } else if (raw[0] == '[') {
        type = length >= 2 && raw[length - 1] == ']' ? SectionConfig::LINE_SECTION
                                                     : SectionConfig::LINE_INVALID;
    } else if (const char *equals = static_cast<const char *>(memchr(raw, '=', length))) {
        if ((equals > raw && isLineBlank(equals[-1])) ||
            (equals + 1 < raw + length && isLineBlank(equals[1]))) {
            return false;
        }
        type = SectionConfig::LINE_KEY_VALUE;
    } else {
        type = SectionConfig::LINE_INVALID;
    }
    return true;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
