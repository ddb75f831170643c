#include "telobackup/section_config.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "internal/eintr.h"
#include "internal/held_rename.h"
#include "internal/safe_open.h"
#include "internal/section_rewrite.h"
#include "internal/syslog.h"
#include "internal/test_hook.h"
#include "internal/unique_fd.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace TELO {
namespace Backup {

using internal::ConfigFile;
using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr char kLogSource[] = "section_config";
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kWriteBuffer = 64 * 1024;

inline bool isBlank(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Closes its stream on scope exit, keeping errno.
struct FileCloser {
    void operator()(FILE *f) const {
        int saved = errno;
        fclose(f);
        errno = saved;
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Opens a configuration file as openConfigFile allows (no link another user planted is
// followed) as a stream; our own streams are never shared with another thread, so stdio need
// not lock them. `file` keeps the directory and name for a rewrite.
FILE *openConfig(const std::string &path, int flags, const char *mode, ConfigFile &file) {
    if (!internal::openConfigFile(path, flags, 0666, file)) return nullptr;
    FILE *f = fdopen(file.fd.get(), mode);
    if (f == nullptr) return nullptr;
    file.fd.release();
    __fsetlocking(f, FSETLOCKING_BYCALLER);
    return f;
}

// Hands out the lines of a stream one at a time, without their "\n", from one buffer that
// grows to the longest line; the stream is read in large chunks.
class LineReader {
  public:
    explicit LineReader(FILE *stream) : stream_(stream) {
        // A small file is read whole in one call, without a larger buffer than it needs.
        struct stat64 st;
        off64_t position = ftello64(stream);
        if (fstat64(fileno(stream), &st) == 0 && S_ISREG(st.st_mode) && position >= 0 &&
            st.st_size - position < static_cast<off64_t>(kReadChunk)) {
            capacity_ = std::max<size_t>(static_cast<size_t>(st.st_size - position) + 1, 256);
        }
        buffer_ = static_cast<char *>(malloc(capacity_ + 1));
        if (buffer_ == nullptr) throw std::bad_alloc();
    }
    ~LineReader() { free(buffer_); }
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // The next line and whether a "\n" ended it; false at the end of the input. The line may
    // be modified in place. `beforeRefill` runs before the buffer is reused, which invalidates
    // every line handed out so far.
    template <typename BeforeRefill>
    bool next(char *&line, size_t &length, bool &newlineEnded, BeforeRefill &&beforeRefill) {
        for (;;) {
            char *newline = static_cast<char *>(memchr(buffer_ + scan_, '\n', end_ - scan_));
            if (newline != nullptr) {
                line = buffer_ + begin_;
                length = static_cast<size_t>(newline - line);
                newlineEnded = true;
                begin_ = scan_ = static_cast<size_t>(newline - buffer_) + 1;
                return true;
            }
            scan_ = end_;
            if (eof_) {
                if (begin_ == end_) return false;
                line = buffer_ + begin_;
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
    void giveBack() {
        if (end_ == begin_) return;
        int saved = errno;
        fseeko64(stream_, -static_cast<off64_t>(end_ - begin_), SEEK_CUR);
        errno = saved;
    }

    // False while no NUL byte has been read, so lines need not be searched for one.
    bool mayHoldNul() const { return nulSeen_; }

    // errno of the failed read, if one failed.
    int readErrno() const { return readErrno_; }

  private:
    void fill() {
        if (begin_ > 0) {
            memmove(buffer_, buffer_ + begin_, end_ - begin_);
            end_ -= begin_;
            scan_ -= begin_;
            begin_ = 0;
        }
        if (end_ == capacity_) {
            char *grown = static_cast<char *>(realloc(buffer_, capacity_ * 2 + 1));
            if (grown == nullptr) throw std::bad_alloc();
            buffer_ = grown;
            capacity_ *= 2;
        }
        size_t wanted = std::min(kReadChunk, capacity_ - end_);
        size_t got = fread(buffer_ + end_, 1, wanted, stream_);
        if (!nulSeen_ && memchr(buffer_ + end_, '\0', got) != nullptr) nulSeen_ = true;
        end_ += got;
        if (got < wanted) {
            eof_ = true;
            if (ferror(stream_)) readErrno_ = errno;
        }
    }

    FILE *stream_;
    char *buffer_ = nullptr;
    size_t capacity_ = kReadChunk;
    size_t begin_ = 0;  // start of the next line
    size_t scan_ = 0;   // where the search for its "\n" goes on
    size_t end_ = 0;    // end of the bytes read
    bool eof_ = false;
    bool nulSeen_ = false;
    int readErrno_ = 0;
};

// Fills `info` from one raw line (without its "\n"), which is modified in place.
inline void classify(char *text, size_t length, bool mayHoldNul, SectionConfig::LineInfo &info) {
    if (mayHoldNul) {
        if (const void *nul = memchr(text, '\0', length)) {
            length = static_cast<size_t>(static_cast<const char *>(nul) - text);
        }
    }
    size_t start = 0;
    while (start < length && isBlank(text[start])) ++start;
    while (length > start && isBlank(text[length - 1])) --length;
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
        while (keyEnd > trimmed && isBlank(keyEnd[-1])) --keyEnd;
        *keyEnd = '\0';
        char *value = equals + 1;
        while (isBlank(*value)) ++value;
        info.key = trimmed;
        info.value = value;
        info.line = nullptr;
        info.type = SectionConfig::LINE_KEY_VALUE;
    } else {
        info.type = SectionConfig::LINE_INVALID;
    }
}

// The scanner behind parseFile, with the callback inlined for the library's own operations.
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
        classify(line, length, reader.mayHoldNul(), info);
        if (!handle(stop, info)) result = false;
    }
    if (stop) reader.giveBack();
    if (int failed = ferror(stream)) {
        errno = reader.readErrno();
        TELO_LOG_ERR("read fd failed [%d]", failed);
        result = false;
    }
    return result;
}

// The writers' common core; `a` and `b` are written up to their first NUL byte.
inline bool putLine(FILE *stream, const char *prefix, const char *a, const char *separator,
                    const char *b, const char *suffix) {
    if (fputs(prefix, stream) == EOF || fputs(a, stream) == EOF ||
        fputs(separator, stream) == EOF || fputs(b, stream) == EOF ||
        fputs(suffix, stream) == EOF) {
        TELO_LOG_ERR("fprintf failed, %m");
        return false;
    }
    return true;
}

inline bool putKeyValue(FILE *stream, const char *key, const char *value) {
    return putLine(stream, "", key, "=", value, "\n");
}
inline bool putSectionName(FILE *stream, const char *name) {
    return putLine(stream, "[", name, "", "", "]\n");
}
inline bool putText(FILE *stream, const char *text) {
    return putLine(stream, "", text, "", "", "\n");
}

// What a rewrite does with one line.
enum class LineAction { kCopy, kDrop, kCopyThenMembers };

// A raw line that is already in the form a rewrite writes (trimmed, "key=value" without blanks
// beside the first "=", no NUL, ended by "\n") is copied as it is, together with its neighbours
// in one write; only other lines are classified in place and written back normalised.
class Rewriter {
  public:
    Rewriter(FILE *in, FILE *out, std::vector<const std::string *> sections)
        : in_(in), out_(out), sections_(std::move(sections)) {}

    // Calls decide(type, wanted) for every line and carries out the action; `wanted` is the
    // index of a header's name among the sections given, else -1. A write
    // failure of a copied run makes the result false only with `strict`. `onHeaderFailed`
    // and `onMembersFailed` are called (to log) when a header or the members cannot be written.
    template <typename Decide, typename Members, typename Failed>
    bool run(Decide &&decide, Members &&writeMembers, bool strict, Failed &&onHeaderFailed) {
        LineReader reader(in_);
        SectionConfig::LineInfo info;
        bool result = true, stop = false, newline;
        char *raw;
        size_t length;
        auto flushRun = [&] {
            if (runSize_ > 0 && fwrite(runBegin_, 1, runSize_, out_) != runSize_ && strict) {
                result = false;
                stop = true;
            }
            runSize_ = 0;
        };
        while (!stop && reader.next(raw, length, newline, flushRun)) {
            int type;
            bool verbatim = newline && quickKind(raw, length, reader.mayHoldNul(), type);
            int wanted = -1;
            if (verbatim) {
                if (type == SectionConfig::LINE_SECTION) wanted = indexOf(raw + 1, length - 2);
            } else {
                classify(raw, length, reader.mayHoldNul(), info);
                type = info.type;
                if (type == SectionConfig::LINE_SECTION) {
                    wanted = indexOf(info.sectionName.data(), info.sectionName.size());
                }
            }
            LineAction action = decide(type, wanted);
            if (action == LineAction::kDrop) {
                flushRun();
                continue;
            }
            if (verbatim) {
                if (runSize_ > 0 && raw != runBegin_ + runSize_) flushRun();
                if (runSize_ == 0) runBegin_ = raw;
                runSize_ += length + 1;
            } else {
                flushRun();
                bool written = type == SectionConfig::LINE_SECTION
                                   ? putSectionName(out_, info.section)
                               : type == SectionConfig::LINE_KEY_VALUE
                                   ? putKeyValue(out_, info.key, info.value)
                                   : putText(out_, info.line);
                if (!written && (strict || type == SectionConfig::LINE_SECTION)) {
                    if (!strict) onHeaderFailed();
                    result = false;
                    break;
                }
            }
            if (action == LineAction::kCopyThenMembers) {
                flushRun();
                if (!writeMembers()) {
                    result = false;
                    break;
                }
            }
        }
        if (!stop) flushRun();
        if (int failed = ferror(in_)) {
            errno = reader.readErrno();
            TELO_LOG_ERR("read fd failed [%d]", failed);
            result = false;
        }
        return result;
    }

  private:
    int indexOf(const char *name, size_t size) const {
        for (size_t i = 0; i < sections_.size(); ++i) {
            const std::string &section = *sections_[i];
            if (section.size() == size && memcmp(section.data(), name, size) == 0) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    // The kind of a line if it can be copied as it is; false when it must be normalised.
    static bool quickKind(const char *raw, size_t length, bool mayHoldNul, int &type) {
        if (length == 0) {
            type = SectionConfig::LINE_BLANK;
            return true;
        }
        if (isBlank(raw[0]) || isBlank(raw[length - 1])) return false;
        if (mayHoldNul && memchr(raw, '\0', length) != nullptr) return false;
        if (raw[0] == '#') {
            type = SectionConfig::LINE_COMMENT;
        } else if (raw[0] == '[') {
            type = length >= 2 && raw[length - 1] == ']' ? SectionConfig::LINE_SECTION
                                                         : SectionConfig::LINE_INVALID;
        } else if (const char *equals = static_cast<const char *>(memchr(raw, '=', length))) {
            if ((equals > raw && isBlank(equals[-1])) ||
                (equals + 1 < raw + length && isBlank(equals[1]))) {
                return false;
            }
            type = SectionConfig::LINE_KEY_VALUE;
        } else {
            type = SectionConfig::LINE_INVALID;
        }
        return true;
    }

    FILE *in_;
    FILE *out_;
    std::vector<const std::string *> sections_;
    const char *runBegin_ = nullptr;
    size_t runSize_ = 0;
};

bool readsBackAs(const std::string &name, bool isKey) {
    for (char c : name) {
        if (c == '\n' || c == '\0' || (isKey && c == '=')) return false;
    }
    if (!isKey || name.empty()) return true;
    return !isBlank(name.front()) && !isBlank(name.back()) && name.front() != '#' &&
           name.front() != '[';
}

// Checks the section name and keys before anything is touched, and renders the members.
bool renderMembers(const std::string &section, const Json::Value &values,
                   std::vector<std::pair<std::string, std::string>> &members) {
    const std::string *bad = nullptr;
    std::string badKey;
    if (!readsBackAs(section, false)) {
        bad = &section;
    } else if (!values.isNull() && !values.isObject()) {
        bad = &section;
    } else {
        for (auto it = values.begin(); it != values.end(); ++it) {
            std::string key = it.name();
            if (!readsBackAs(key, true)) {
                badKey = key;
                bad = &badKey;
                break;
            }
            members.emplace_back(std::move(key), jsonToString(*it));
        }
    }
    if (bad == nullptr) return true;
    errno = EINVAL;
    TELO_LOG_ERR("invalid name [%s]", bad->c_str());
    return false;
}

// Flushes and syncs a finished temporary and closes it; false after logging.
bool finishTemp(FilePtr &out) {
    FILE *f = out.release();
    bool written = !ferror(f) && fflush(f) == 0;
    if (written && retryOnEintr([f] { return fsync(fileno(f)); }) != 0) {
        int saved = errno;
        fclose(f);
        errno = saved;
        TELO_LOG_ERR("fsync temp file failed, %m");
        return false;
    }
    if (!written) {
        int saved = errno != 0 ? errno : EIO;
        fclose(f);
        errno = saved;
        TELO_LOG_ERR("failed close temp file");
        return false;
    }
    if (fclose(f) != 0) {
        TELO_LOG_ERR("failed close temp file");
        return false;
    }
    return true;
}

bool closeInput(FilePtr &in) {
    if (in && fclose(in.release()) != 0) {
        TELO_LOG_ERR("failed close section file");
        return false;
    }
    return true;
}

// Makes a rename in the directory `dir` durable. Logged only: the new file is in place.
void syncDirectory(int dir) {
    int saved = errno;
    UniqueFd readable(openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable || retryOnEintr([&readable] { return fsync(readable.get()); }) != 0) {
        TELO_LOG_ERR("fsync dir failed, %m");
    }
    errno = saved;
}

// The temporary beside a rewritten file and a buffered stream on it; members go in reverse
// order, so the stream is closed before its buffer is freed. Everything after the temporary's
// creation happens relative to the directory the file was found in.
struct TempOutput {
    const ConfigFile &target;
    ScopedTempFile temp;
    std::unique_ptr<char[]> buffer;
    FilePtr stream;

    explicit TempOutput(const ConfigFile &file) : target(file), temp(announce(file.path), false) {}

    // Logs "create temp failed" or "<streamStep> failed" with the reason.
    bool open(const char *streamStep) {
        if (!temp.isValid() || !inTargetDirectory()) {
            TELO_LOG_ERR("create temp failed, %m");
            return false;
        }
        // Written through a copy of the temporary's own descriptor, never reopened by name: the
        // descriptor stays with the temporary, which is checked through it before the rename.
        UniqueFd copy(fcntl(temp.getFileDescripter(), F_DUPFD_CLOEXEC, 0));
        stream.reset(copy ? fdopen(copy.get(), "a+") : nullptr);
        if (!stream) {
            TELO_LOG_ERR("%s failed, %m", streamStep);
            return false;
        }
        copy.release();
        __fsetlocking(stream.get(), FSETLOCKING_BYCALLER);
        buffer.reset(new char[kWriteBuffer]);
        setvbuf(stream.get(), buffer.get(), _IOFBF, kWriteBuffer);
        return true;
    }

    // Moves the finished temporary over the file, as its renameWithMode would, but within the
    // directory that was checked.
    bool install() {
        internal::HeldSource source;
        source.fd = temp.getFileDescripter();
        source.dirFd = target.dir.get();
        source.src = temp.getPath();
        source.srcName = Path::basename(source.src);
        source.dst = target.path;
        source.dstName = target.name;
        bool nameGone = false;
        bool moved = internal::renameHeldWithMode(source, nameGone);
        // Moved, or the name is no longer ours: either way nothing is left to remove.
        if (moved || nameGone) temp.preserve();
        if (moved) syncDirectory(target.dir.get());
        return moved;
    }

  private:
    static const std::string &announce(const std::string &path) {
        internal::runTestHook(internal::HookPoint::kBeforeTempCreate, path.c_str());
        return path;
    }

    // The temporary was made by path: a directory swapped on the way would have put it
    // elsewhere.
    bool inTargetDirectory() {
        // A failing call says why; a name missing there, or another file, means elsewhere.
        struct stat held, named;
        if (fstat(temp.getFileDescripter(), &held) != 0) return false;
        if (fstatat(target.dir.get(), Path::basename(temp.getPath()).c_str(), &named,
                    AT_SYMLINK_NOFOLLOW) == 0) {
            if (held.st_dev == named.st_dev && held.st_ino == named.st_ino) return true;
        } else if (errno != ENOENT) {
            return false;
        }
        errno = ESTALE;
        return false;
    }
};

}  // namespace

SectionConfig::LineInfo::LineInfo()
    : type(LINE_BLANK), line(nullptr), section(nullptr), key(nullptr), value(nullptr) {}

bool SectionConfig::parseFile(FILE *stream, ParseCallback callback, void *arg) {
    if (stream == nullptr || callback == nullptr) {
        errno = EINVAL;
        return false;
    }
    return scanStream(stream, [callback, arg](bool &stop, const LineInfo &info) {
        return callback(stop, info, arg);
    });
}

bool SectionConfig::writeSectionName(FILE *stream, const std::string &name) {
    return putSectionName(stream, name.c_str());
}

bool SectionConfig::writeKeyValue(FILE *stream, const std::string &key, const std::string &value) {
    return putKeyValue(stream, key.c_str(), value.c_str());
}

bool SectionConfig::writeLine(FILE *stream, const std::string &line) {
    return putText(stream, line.c_str());
}

bool SectionConfig::loadSection(const std::string &file, const std::string &section,
                                Json::Value &values) {
    // Keys are added by name, which an array (or any other kind of value) would refuse.
    if (values.isNull() || values.isObject()) {
        values.clear();
    } else {
        values = Json::Value();
    }
    ConfigFile opened;
    FilePtr in(openConfig(file, O_RDONLY, "rb", opened));
    if (!in) return false;
    bool inSection = false, found = false;
    bool scanned = scanStream(in.get(), [&](bool &stop, const LineInfo &info) {
        if (info.type == LINE_SECTION) {
            if (inSection) {
                stop = true;
                inSection = false;
            } else if (info.sectionName == section) {
                inSection = found = true;
            }
        } else if (info.type == LINE_KEY_VALUE && inSection) {
            Json::Value parsed;
            if (jsonFromString(parsed, info.value)) values[info.key].swap(parsed);
        }
        return true;
    });
    in.reset();
    if (!scanned) return false;
    if (!found) {
        errno = ENOENT;
        return false;
    }
    return true;
}

bool SectionConfig::listSection(const std::string &file, std::list<std::string> &sections) {
    sections.clear();
    ConfigFile opened;
    FilePtr in(openConfig(file, O_RDONLY, "rb", opened));
    if (!in) return false;
    return scanStream(in.get(), [&sections](bool &, const LineInfo &info) {
        if (info.type == LINE_SECTION) sections.push_back(info.sectionName);
        return true;
    });
}

bool SectionConfig::updateSection(const std::string &path, const std::string &section,
                                  const Json::Value &values, bool create) {
    return internal::updateSections(path, {{&section, &values}}, create);
}

namespace internal {

bool updateSections(const std::string &path, const std::vector<SectionUpdate> &updates,
                    bool create) {
    const int LINE_SECTION = SectionConfig::LINE_SECTION;
    const int LINE_KEY_VALUE = SectionConfig::LINE_KEY_VALUE;
    std::vector<std::vector<std::pair<std::string, std::string>>> members(updates.size());
    std::vector<const std::string *> names;
    for (size_t i = 0; i < updates.size(); ++i) {
        if (!renderMembers(*updates[i].section, *updates[i].values, members[i])) return false;
        names.push_back(updates[i].section);
    }
    // Opened for update so that a file that cannot be written fails here.
    ConfigFile target;
    FilePtr in(openConfig(path, O_RDWR, "r+b", target));
    if (!in) {
        if (errno == ENOENT) {
            if (!create) return false;
            // No directory to make the file in.
            if (!target.dir) {
                TELO_LOG_ERR("create temp failed, %m");
                return false;
            }
        } else if (errno == EACCES) {
            return false;
        } else {
            TELO_LOG_ERR("open failed, %m");
            return false;
        }
    }
    TempOutput out(target);
    if (!out.open("temp.getFile")) return false;
    FILE *output = out.stream.get();
    auto writeMembers = [&members, output](size_t index) {
        for (const auto &member : members[index]) {
            if (!putKeyValue(output, member.first.c_str(), member.second.c_str())) return false;
        }
        return true;
    };

    std::vector<bool> found(updates.size(), false);
    if (in) {
        int inSection = -1;
        // Comments, blank and invalid lines inside a section stay; its keys are replaced.
        auto decide = [&](int type, int wanted) {
            if (type == LINE_SECTION) {
                // Every copy of a section gets the new members, adjacent copies too.
                inSection = wanted;
                if (wanted < 0) return LineAction::kCopy;
                found[wanted] = true;
                return LineAction::kCopyThenMembers;
            }
            return inSection >= 0 && type == LINE_KEY_VALUE ? LineAction::kDrop : LineAction::kCopy;
        };
        auto sectionMembers = [&] {
            if (writeMembers(static_cast<size_t>(inSection))) return true;
            TELO_LOG_ERR("write key-value failed, %m");
            return false;
        };
        auto headerFailed = [] { TELO_LOG_ERR("write section name failed, %m"); };
        Rewriter rewriter(in.get(), output, names);
        if (!rewriter.run(decide, sectionMembers, false, headerFailed)) {
            TELO_LOG_ERR("parse failed, %m");
            return false;
        }
    }
    for (size_t i = 0; i < updates.size(); ++i) {
        if (found[i]) continue;
        if (!create) {
            errno = ENOENT;
            return false;
        }
        if (!putSectionName(output, updates[i].section->c_str())) {
            TELO_LOG_ERR("failed to write section name, %m");
            return false;
        }
        if (!writeMembers(i)) {
            TELO_LOG_ERR("failed to write key-value, %m");
            return false;
        }
    }
    if (!finishTemp(out.stream) || !closeInput(in)) return false;
    return out.install();
}

}  // namespace internal

bool SectionConfig::removeSection(const std::string &path, const std::string &section) {
    ConfigFile target;
    FilePtr in(openConfig(path, O_RDWR, "r+b", target));
    if (!in) {
        if (errno != ENOENT && errno != EACCES) TELO_LOG_ERR("open failed, %m");
        return false;
    }
    TempOutput out(target);
    if (!out.open("temp open failed")) return false;
    FILE *output = out.stream.get();

    // Every copy of the section goes, with all its lines.
    bool inSection = false, found = false;
    auto decide = [&](int type, int wanted) {
        if (type == LINE_SECTION) {
            inSection = wanted >= 0;
            found = found || inSection;
        }
        return inSection ? LineAction::kDrop : LineAction::kCopy;
    };
    Rewriter rewriter(in.get(), output, {&section});
    bool scanned = rewriter.run(
        decide, [] { return true; }, true, [] {});
    if (!scanned) return false;
    if (!found) {
        errno = ENOENT;
        return false;
    }
    if (!finishTemp(out.stream) || !closeInput(in)) return false;
    if (!out.install()) {
        TELO_LOG_ERR("rename failed, %m");
        return false;
    }
    return true;
}

}  // namespace Backup
}  // namespace TELO
