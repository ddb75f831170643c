// The one line grammar of section config files: a reader that hands out the lines of a stream,
// the classification of a line (blank, comment, header, key line, invalid), and beside it the
// quick check a rewrite uses to copy a line that is already in written form.
#ifndef TELO_SRC_SECTION_CONFIG_LINE_SCANNER_H
#define TELO_SRC_SECTION_CONFIG_LINE_SCANNER_H

#include <cstdio>
#include <cstring>
#include <string>

#include "internal/safe_open.h"
#include "internal/unique_owners.h"
#include "telobackup/section_config.h"

namespace TELO {
namespace Backup {
namespace internal {

// The bytes a line is trimmed of at both ends.
inline bool isLineBlank(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Opens a configuration file as openConfigFile allows (no link another user planted is
// followed, a regular file only) as a stream. Our own streams are never shared with another
// thread, so stdio need not lock them. `file` keeps the directory and name for a rewrite.
// Null with errno from openConfigFile or fdopen; nothing logged.
UniqueFile openConfigStream(const std::string &path, int flags, const char *mode, ConfigFile &file);

// Hands out the lines of a stream one at a time, without their "\n", from one buffer that
// grows to the longest line; the stream is read in large chunks.
class LineReader {
  public:
    explicit LineReader(FILE *stream);
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // The next line and whether a "\n" ended it; false at the end of the input. The line may
    // be modified in place. `beforeRefill` runs before the buffer is reused, which invalidates
    // every line handed out so far.
    template <typename BeforeRefill>
    bool next(char *&line, size_t &length, bool &newlineEnded, BeforeRefill &&beforeRefill) {
        for (;;) {
            char *buffer = buffer_.get();
            char *newline = static_cast<char *>(memchr(buffer + scan_, '\n', end_ - scan_));
            if (newline != nullptr) {
                line = buffer + begin_;
                length = static_cast<size_t>(newline - line);
                newlineEnded = true;
                begin_ = scan_ = static_cast<size_t>(newline - buffer) + 1;
                return true;
            }
            scan_ = end_;
            if (eof_) {
                if (begin_ == end_) return false;
                line = buffer + begin_;
                length = end_ - begin_;
                line[length] = '\0';
                newlineEnded = false;
                begin_ = scan_ = end_;
                return true;
            }
            beforeRefill();
            fill();
        }
    }

    // Puts the bytes read past the last line handed out back into a seekable stream.
    void giveBack();

    // False while no NUL byte has been read, so lines need not be searched for one.
    bool mayHoldNul() const { return nulSeen_; }

    // False after logging "read fd failed [%d]" (ferror()'s value) when the stream had a read
    // error; errno is then the read's.
    bool checkRead() const;

  private:
    void fill();

    FILE *stream_;
    UniqueMalloc<char> buffer_;
    size_t capacity_;
    size_t begin_ = 0;  // start of the next line
    size_t scan_ = 0;   // where the search for its "\n" goes on
    size_t end_ = 0;    // end of the bytes read
    bool eof_ = false;
    bool nulSeen_ = false;
    int readErrno_ = 0;
};

// Fills `info` from one raw line (without its "\n"), which is trimmed in place: the text stops
// at a NUL byte (searched for only when `mayHoldNul`), a header's name is copied into
// info.sectionName, and a key line is split at its first "=".
void classifyLine(char *text, size_t length, bool mayHoldNul, SectionConfig::LineInfo &info);

// The fast path of a rewrite: true, with the kind classifyLine would give, when the raw line
// (ended by "\n") is already exactly what writing its classified form back produces (trimmed,
// "key=value" without blanks beside the first "=", no NUL), so that it can be copied as it is.
// False when the line must be classified and written back normalised.
bool verbatimLineKind(const char *raw, size_t length, bool mayHoldNul, int &type);

// Calls handle(stop, info) for every line of `stream` until it sets `stop`; afterwards a
// stopped stream is positioned just after the stopping line when it is seekable. False when a
// handler returned false or the read failed (logged by LineReader::checkRead).
template <typename Handler>
bool scanStream(FILE *stream, Handler &&handle) {
    SectionConfig::LineInfo info;
    LineReader reader(stream);
    bool result = true;
    bool stop = false;
    char *line;
    size_t length;
    bool newline;
    while (!stop && reader.next(line, length, newline, [] {})) {
        classifyLine(line, length, reader.mayHoldNul(), info);
        if (!handle(stop, info)) result = false;
    }
    if (stop) reader.giveBack();
    return reader.checkRead() && result;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
