#include "section_config/rewrite.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "internal/held_rename.h"
#include "internal/safe_open.h"
#include "internal/syslog.h"
#include "internal/test_hook.h"
#include "internal/unique_fd.h"
#include "internal/unique_owners.h"
#include "section_config/line_scanner.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"
#include "telobackup/temp_manager/temp_manager.h"

namespace TELO {
namespace Backup {
namespace internal {

namespace {

// Every part of the section config module logs under the one source name it always had.
constexpr char kLogSource[] = "section_config";
constexpr size_t kWriteBuffer = 64 * 1024;

// The writers' common core; `a` and `b` are written up to their first NUL byte.
bool putLine(FILE *stream, const char *prefix, const char *a, const char *separator,
             const char *b, const char *suffix) {
    if (fputs(prefix, stream) == EOF || fputs(a, stream) == EOF ||
        fputs(separator, stream) == EOF || fputs(b, stream) == EOF ||
        fputs(suffix, stream) == EOF) {
        TELO_LOG_ERR("fprintf failed, %m");
        return false;
    }
    return true;
}

// What a rewrite does with one line.
enum class LineAction { kCopy, kDrop, kCopyThenMembers };

// Which failed writes end a rewrite.
enum class RewritePolicy {
    // Every one: a removal writes nothing but copies, so nothing later would notice a loss.
    kStopOnAnyWriteFailure,
    // Only a header or the members written under it; a failed copy leaves the stream in error,
    // which finishing the temporary reports.
    kStopOnHeaderOrMembersFailure,
};

// Copies the lines of `in` to `out` as `decide` says. A raw line that is already in written
// form (verbatimLineKind) is copied as it is, together with its neighbours in one write; only
// other lines are classified in place and written back normalised.
class Rewriter {
  public:
    Rewriter(FILE *in, FILE *out, std::vector<const std::string *> sections)
        : in_(in), out_(out), sections_(std::move(sections)) {}

    // Calls decide(type, wanted) for every line and carries out the action; `wanted` is the
    // index of a header's name among the sections given, else -1. writeMembers() writes the
    // members after a header decided kCopyThenMembers, and logs its own failure.
    // `onHeaderFailed` is called (to log) when a header cannot be written under
    // kStopOnHeaderOrMembersFailure. False when the policy ends the rewrite or the read fails
    // (logged by LineReader::checkRead).
    template <typename Decide, typename Members, typename Failed>
    bool run(Decide &&decide, Members &&writeMembers, RewritePolicy policy,
             Failed &&onHeaderFailed) {
        const bool stopOnAny = policy == RewritePolicy::kStopOnAnyWriteFailure;
        LineReader reader(in_);
        SectionConfig::LineInfo info;
        bool result = true, stop = false, newline;
        char *raw;
        size_t length;
        auto flushRun = [&] {
            if (runSize_ > 0 && fwrite(runBegin_, 1, runSize_, out_) != runSize_ && stopOnAny) {
                result = false;
                stop = true;
            }
            runSize_ = 0;
        };
        while (!stop && reader.next(raw, length, newline, flushRun)) {
            int type;
            bool verbatim = newline && verbatimLineKind(raw, length, reader.mayHoldNul(), type);
            int wanted = -1;
            if (verbatim) {
                if (type == SectionConfig::LINE_SECTION) wanted = indexOf(raw + 1, length - 2);
            } else {
                classifyLine(raw, length, reader.mayHoldNul(), info);
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
                if (!written && (stopOnAny || type == SectionConfig::LINE_SECTION)) {
                    if (!stopOnAny) onHeaderFailed();
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
        return reader.checkRead() && result;
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

    FILE *in_;
    FILE *out_;
    std::vector<const std::string *> sections_;
    const char *runBegin_ = nullptr;
    size_t runSize_ = 0;
};

// True when `name`, written as a section name (or a key, with `isKey`), reads back as itself.
bool readsBackAs(const std::string &name, bool isKey) {
    for (char c : name) {
        if (c == '\n' || c == '\0' || (isKey && c == '=')) return false;
    }
    if (!isKey || name.empty()) return true;
    return !isLineBlank(name.front()) && !isLineBlank(name.back()) && name.front() != '#' &&
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
bool finishTemp(UniqueFile &out) {
    if (ferror(out.get()) || fflush(out.get()) != 0) {
        if (errno == 0) errno = EIO;  // an error state that recorded no cause
        out.reset();
        TELO_LOG_ERR("failed close temp file");
        return false;
    }
    if (retryOnEintr([&out] { return fsync(fileno(out.get())); }) != 0) {
        out.reset();
        TELO_LOG_ERR("fsync temp file failed, %m");
        return false;
    }
    if (fclose(out.release()) != 0) {
        TELO_LOG_ERR("failed close temp file");
        return false;
    }
    return true;
}

bool closeInput(UniqueFile &in) {
    if (in && fclose(in.release()) != 0) {
        TELO_LOG_ERR("failed close section file");
        return false;
    }
    return true;
}

// Makes a rename in the directory `dir` durable. Logged only: the new file is in place.
void syncDirectory(int dir) {
    ErrnoSaver keep;
    UniqueFd readable(openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable || retryOnEintr([&readable] { return fsync(readable.get()); }) != 0) {
        TELO_LOG_ERR("fsync dir failed, %m");
    }
}

// The temporary beside a rewritten file and a buffered stream on it. Everything after the
// temporary's creation happens relative to the directory the file was found in.
class TempOutput {
  public:
    explicit TempOutput(const ConfigFile &file) : target_(file), temp_(announce(file.path), false) {}

    // Whether the temporary exists in the file's directory; errno says why not.
    bool created() { return temp_.isValid() && inTargetDirectory(); }

    // Opens the buffered stream on the temporary; false with errno.
    bool openStream() {
        // Written through a copy of the temporary's own descriptor, never reopened by name: the
        // descriptor stays with the temporary, which is checked through it before the rename.
        UniqueFd copy(fcntl(temp_.getFileDescripter(), F_DUPFD_CLOEXEC, 0));
        stream_.reset(copy ? fdopen(copy.get(), "a+") : nullptr);
        if (!stream_) return false;
        copy.release();
        __fsetlocking(stream_.get(), FSETLOCKING_BYCALLER);
        buffer_.reset(new char[kWriteBuffer]);
        setvbuf(stream_.get(), buffer_.get(), _IOFBF, kWriteBuffer);
        return true;
    }

    FILE *stream() const { return stream_.get(); }

    // Flushes, syncs and closes the stream; false after logging.
    bool finish() { return finishTemp(stream_); }

    // Moves the finished temporary over the file, as its renameWithMode would, but within the
    // directory that was checked.
    bool install() {
        HeldSource source;
        source.fd = temp_.getFileDescripter();
        source.dirFd = target_.dir.get();
        source.src = temp_.getPath();
        source.srcName = Path::basename(source.src);
        source.dst = target_.path;
        source.dstName = target_.name;
        bool nameGone = false;
        bool moved = renameHeldWithMode(source, nameGone);
        // Moved, or the name is no longer ours: either way nothing is left to remove.
        if (moved || nameGone) temp_.preserve();
        if (moved) syncDirectory(target_.dir.get());
        return moved;
    }

  private:
    static const std::string &announce(const std::string &path) {
        runTestHook(HookPoint::kBeforeTempCreate, path.c_str());
        return path;
    }

    // The temporary was made by path: a directory swapped on the way would have put it
    // elsewhere.
    bool inTargetDirectory() {
        // A failing call says why; a name missing there, or another file, means elsewhere.
        struct stat held, named;
        if (fstat(temp_.getFileDescripter(), &held) != 0) return false;
        if (fstatat(target_.dir.get(), Path::basename(temp_.getPath()).c_str(), &named,
                    AT_SYMLINK_NOFOLLOW) == 0) {
            if (held.st_dev == named.st_dev && held.st_ino == named.st_ino) return true;
        } else if (errno != ENOENT) {
            return false;
        }
        errno = ESTALE;
        return false;
    }

    // Destroyed in reverse order: the stream is closed before its buffer is freed.
    const ConfigFile &target_;
    ScopedTempFile temp_;
    std::unique_ptr<char[]> buffer_;
    UniqueFile stream_;
};

}  // namespace

bool putSectionName(FILE *stream, const char *name) {
    return putLine(stream, "[", name, "", "", "]\n");
}

bool putKeyValue(FILE *stream, const char *key, const char *value) {
    return putLine(stream, "", key, "=", value, "\n");
}

bool putText(FILE *stream, const char *text) {
    return putLine(stream, "", text, "", "", "\n");
}

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
    UniqueFile in = openConfigStream(path, O_RDWR, "r+b", target);
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
    if (!out.created()) {
        TELO_LOG_ERR("create temp failed, %m");
        return false;
    }
    if (!out.openStream()) {
        TELO_LOG_ERR("temp.getFile failed, %m");
        return false;
    }
    FILE *output = out.stream();
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
        if (!rewriter.run(decide, sectionMembers, RewritePolicy::kStopOnHeaderOrMembersFailure,
                          headerFailed)) {
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
    if (!out.finish() || !closeInput(in)) return false;
    return out.install();
}

bool removeSectionCopies(const std::string &path, const std::string &section) {
    ConfigFile target;
    UniqueFile in = openConfigStream(path, O_RDWR, "r+b", target);
    if (!in) {
        if (errno != ENOENT && errno != EACCES) TELO_LOG_ERR("open failed, %m");
        return false;
    }
    TempOutput out(target);
    if (!out.created()) {
        TELO_LOG_ERR("create temp failed, %m");
        return false;
    }
    if (!out.openStream()) {
        TELO_LOG_ERR("temp open failed failed, %m");
        return false;
    }

    // Every copy of the section goes, with all its lines.
    bool inSection = false, found = false;
    auto decide = [&](int type, int wanted) {
        if (type == SectionConfig::LINE_SECTION) {
            inSection = wanted >= 0;
            found = found || inSection;
        }
        return inSection ? LineAction::kDrop : LineAction::kCopy;
    };
    Rewriter rewriter(in.get(), out.stream(), {&section});
    auto noMembers = [] { return true; };
    if (!rewriter.run(decide, noMembers, RewritePolicy::kStopOnAnyWriteFailure, [] {})) {
        return false;
    }
    if (!found) {
        errno = ENOENT;
        return false;
    }
    if (!out.finish() || !closeInput(in)) return false;
    if (!out.install()) {
        TELO_LOG_ERR("rename failed, %m");
        return false;
    }
    return true;
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO
