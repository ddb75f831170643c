#include "config_rewrite.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "cli.h"
#include "fd_io.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"

namespace telocli {

namespace {

using TELO::Backup::SectionConfig;

constexpr size_t kMaxConfigBytes = size_t(256) << 20;

struct KeyLine {
    int copy;       // 0 for the first copy of the section
    size_t number;  // 1-based line number
    std::string key, value;
};

struct Scan {
    const std::string *section;
    int copies = 0;
    bool inside = false;
    size_t number = 0;
    std::vector<KeyLine> lines;
};

bool onLine(bool &, const SectionConfig::LineInfo &info, void *arg) {
    Scan &scan = *static_cast<Scan *>(arg);
    ++scan.number;
    if (info.type == SectionConfig::LINE_SECTION) {
        scan.inside = info.sectionName == *scan.section;
        if (scan.inside) ++scan.copies;
    } else if (info.type == SectionConfig::LINE_KEY_VALUE && scan.inside) {
        scan.lines.push_back({scan.copies - 1, scan.number, info.key, info.value});
    }
    return true;
}

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};

// The trimmed text of every line of `text`, each up to a NUL byte.
std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    const char *blanks = " \t\r\n";
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        line = line.substr(0, line.find('\0'));
        size_t first = line.find_first_not_of(blanks);
        lines.push_back(first == std::string::npos
                            ? std::string()
                            : line.substr(first, line.find_last_not_of(blanks) - first + 1));
        start = end + 1;
    }
    return lines;
}

}  // namespace

bool readConfigText(const std::string &file, std::string &text) {
    std::unique_ptr<FILE, FileCloser> opened(SectionConfig::openFile(file));
    if (!opened) {
        if (errno == ENOENT) return false;
        throw fileError(kExitInvalidFile, file, file);
    }
    text.clear();
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = readRetrying(fileno(opened.get()), buffer, sizeof(buffer));
        if (n < 0) throw systemError(kExitInvalidFile, file);
        if (n == 0) return true;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > kMaxConfigBytes) {
            throw CommandError(kExitInvalidFile, file + ": larger than " +
                                                     std::to_string(kMaxConfigBytes >> 20) + " MiB");
        }
    }
}

void refuseLostLines(const std::string &file, const std::string &text, const std::string &section,
                     const std::set<std::string> &touched) {
    Scan scan;
    scan.section = &section;
    {
        std::unique_ptr<FILE, FileCloser> in(
            fmemopen(const_cast<char *>(text.data()), text.size(), "rb"));
        if (text.empty()) return;
        if (!in || !SectionConfig::parseFile(in.get(), onLine, &scan)) {
            throw systemError(kExitFailed, "cannot scan " + file);
        }
    }
    // The values the rewrite starts from, as the library loads them.
    std::map<std::string, Json::Value> loaded;
    for (const KeyLine &line : scan.lines) {
        Json::Value value;
        if (line.copy == 0 && TELO::Backup::jsonFromString(value, line.value)) {
            loaded[line.key].swap(value);
        }
    }
    std::vector<std::string> lines;
    std::string message;
    Json::Value lost(Json::arrayValue);
    bool notJson = false;
    for (const KeyLine &line : scan.lines) {
        if (touched.count(line.key) != 0) continue;
        Json::Value value;
        bool parsed = TELO::Backup::jsonFromString(value, line.value);
        auto kept = loaded.find(line.key);
        if (parsed && kept != loaded.end() && kept->second == value) continue;
        notJson = notJson || !parsed;
        if (lines.empty()) lines = linesOf(text);
        const std::string &lineTextNow =
            line.number <= lines.size() ? lines[line.number - 1] : line.key;
        message += "\n" + file + ":" + std::to_string(line.number) + ": " + lineTextNow;
        Json::Value entry;
        entry["file"] = file;
        entry["line"] = static_cast<Json::UInt64>(line.number);
        entry["text"] = lineTextNow;
        lost.append(entry);
    }
    if (lost.empty()) return;
    std::string why = scan.copies > 1 ? "[" + section + "] appears " +
                                            std::to_string(scan.copies) +
                                            " times and only its first copy's keys are kept"
                                      : "[" + section + "] holds lines the rewrite drops";
    std::string hint = notJson ? "store plain text with --string KEY=TEXT" : "";
    if (scan.copies > 1) hint += std::string(hint.empty() ? "" : ", ") + "merge the copies";
    if (hint.empty()) hint = "remove the duplicate keys";
    Json::Value details;
    details["lines"] = lost;
    throw CommandError(kExitInvalidFile,
                       "refusing to rewrite " + file + ": " + why + "; these lines would be lost:" +
                           message + "\n" + hint + " first, or accept the loss with --force",
                       details);
}

DryRunCopy::DryRunCopy(const std::string &file) {
    bool exists = readConfigText(file, before_);
    const char *tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/telobackup-util-dry.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        throw systemError(kExitFailed, "cannot make a directory for the dry run in " + pattern);
    }
    directory_ = name.data();
    path_ = directory_ + "/" + TELO::Backup::Path::basename(file);
    if (!exists) return;
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool written = fd >= 0 && writeAll(fd, before_.data(), before_.size());
    if (fd >= 0 && close(fd) != 0) written = false;
    if (!written) {
        CommandError error = systemError(kExitFailed, "cannot copy " + file + " for the dry run");
        unlink(path_.c_str());
        rmdir(directory_.c_str());
        throw error;
    }
}

DryRunCopy::~DryRunCopy() {
    // The copy, and whatever a failed rewrite left beside it.
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory_.c_str()), closedir);
    if (dir) {
        while (dirent *entry = readdir(dir.get())) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") unlink((directory_ + "/" + name).c_str());
        }
    }
    rmdir(directory_.c_str());
}

std::string DryRunCopy::after() const {
    std::string text;
    if (!readConfigText(path_, text)) text.clear();
    return text;
}

}  // namespace telocli
