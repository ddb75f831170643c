// Samba's configuration, read as Samba reads it: its line rules (continuations, blank runs,
// comments), its section and parameter rules (names without case, global defaults taken when a
// section starts, copy, include) and its refusals (which refuse the whole configuration).
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "config_file.h"
#include "mount_table.h"
#include "share_config.h"
#include "telo/platform.h"

namespace telo_platform {

namespace {

enum : unsigned int { kSetPath = 1, kSetAvailable = 2, kSetPrintable = 4 };

// Samba's blanks: isspace in the C locale.
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string trimBlanks(const std::string &text) {
    size_t first = 0, last = text.size();
    while (first < last && isBlank(text[first])) ++first;
    while (last > first && isBlank(text[last - 1])) --last;
    return text.substr(first, last - first);
}

// Each run of blanks becomes its first blank.
std::string collapseBlanks(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (!out.empty() && isBlank(text[i]) && isBlank(text[i - 1])) continue;
        out += text[i];
    }
    return out;
}

// Section names compare without (ASCII) case.
std::string lowerCase(const std::string &text) {
    std::string lower = text;
    for (char &c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

// Parameter names compare without case and without blanks ("Print OK" is "printok").
std::string parameterName(const std::string &key) {
    std::string name;
    for (char c : key) {
        if (isBlank(c)) continue;
        name += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return name;
}

bool parseBoolean(const std::string &value, bool &out) {
    static const char *const kTrue[] = {"yes", "true", "on", "1"};
    static const char *const kFalse[] = {"no", "false", "off", "0"};
    for (int truth = 0; truth < 2; ++truth) {
        for (const char *word : truth ? kTrue : kFalse) {
            if (strcasecmp(value.c_str(), word) == 0) {
                out = truth != 0;
                return true;
            }
        }
    }
    return false;
}

// Samba drops one leading and one trailing double quote from a path, unless another quote is
// left inside.
std::string unquote(const std::string &value) {
    std::string out = value;
    if (!out.empty() && out.front() == '"') out.erase(0, 1);
    if (!out.empty() && out.back() == '"') out.pop_back();
    return out.find('"') == std::string::npos ? out : value;
}

}  // namespace

bool readShareFile(const std::string &path, std::string &content) {
    if (readConfigFile(path, kMaxShareFileBytes, FileKind::kRegular, content)) return true;
    // A name that cannot even be looked up does not exist, as far as Samba's includes go.
    int error = errno;
    struct stat st;
    errno = stat(path.c_str(), &st) != 0 ? ENOENT : error;
    return false;
}

bool SambaConfig::fail(unsigned int code, int error, const std::string &detail) {
    code_ = code;
    error_ = error;
    detail_ = detail;
    return false;
}

unsigned int SambaConfig::load(const std::string &file) {
    global_ = Service();
    services_.clear();
    current_ = -1;
    bytesRead_ = 0;
    filesRead_ = 0;
    byName_.clear();
    code_ = TELO_ERR_NONE;
    error_ = 0;
    detail_.clear();
    readFile(file, 0, "");
    errno = error_;
    return code_;
}

bool SambaConfig::readFile(const std::string &file, int depth, const std::string &includedAt) {
    std::string content;
    if (!read_(file, content)) {
        int error = errno;
        if (error == ENOENT && depth > 0) return true;  // Samba skips a missing include
        std::string what = includedAt.empty() ? file : includedAt + ": include " + file;
        return fail(fileErrorCode(error), error,
                    what + ": " + configFileError(error, kMaxShareFileBytes));
    }
    bytesRead_ += content.size();
    if (++filesRead_ > kMaxShareConfigFiles || bytesRead_ > kMaxShareConfigBytes) {
        return fail(TELO_ERR_BAD_CONFIG, EFBIG,
                    file + ": more than " + std::to_string(kMaxShareConfigFiles) + " files or " +
                        std::to_string(kMaxShareConfigBytes) + " bytes to read with includes");
    }
    size_t pos = 0, lineNumber = 0;
    while (pos < content.size()) {
        size_t end = content.find('\n', pos);
        bool terminated = end != std::string::npos;
        if (!terminated) end = content.size();
        std::string line = content.substr(pos, end - pos);
        pos = terminated ? end + 1 : end;
        size_t first = ++lineNumber, firstBlank = 0;
        while (firstBlank < line.size() && isBlank(line[firstBlank])) ++firstBlank;
        if (firstBlank == line.size() || line[firstBlank] == ';' || line[firstBlank] == '#') {
            continue;  // blank or comment; comments never continue
        }
        // A backslash ending a line (blanks after it allowed) joins the next line to it.
        while (terminated) {
            size_t last = line.size();
            while (last > 0 && isBlank(line[last - 1])) --last;
            if (last == 0 || line[last - 1] != '\\') break;
            line.resize(last - 1);
            if (pos >= content.size()) break;
            end = content.find('\n', pos);
            terminated = end != std::string::npos;
            if (!terminated) end = content.size();
            line.append(content, pos, end - pos);
            pos = terminated ? end + 1 : end;
            ++lineNumber;
        }
        size_t nul = line.find('\0');
        if (nul != std::string::npos) line.resize(nul);
        std::string where = file + ":" + std::to_string(first);
        if (!parseLine(trimBlanks(collapseBlanks(line)), where, depth)) return false;
    }
    return true;
}

bool SambaConfig::parseLine(const std::string &line, const std::string &where, int depth) {
    if (line.empty()) return true;
    if (line[0] == '[') {
        size_t close = line.find(']');
        if (close == std::string::npos) {
            return fail(TELO_ERR_BAD_CONFIG, EINVAL, where + ": section header without \"]\"");
        }
        std::string name = line.substr(1, close - 1);
        if (name.empty()) return fail(TELO_ERR_BAD_CONFIG, EINVAL, where + ": empty section name");
        std::string plain = parameterName(name);
        if (plain == "global" || plain == "globals") {
            current_ = -1;
            return true;
        }
        auto known = byName_.emplace(lowerCase(name), services_.size());
        if (known.second) {
            // A new section starts from the global values of this moment.
            Service service = global_;
            service.name = name;
            service.setHere = 0;
            services_.push_back(service);
        }
        current_ = static_cast<int>(known.first->second);
        return true;
    }
    size_t equals = line.find('=');
    if (equals == std::string::npos) return true;  // Samba skips such lines
    std::string key = trimBlanks(line.substr(0, equals));
    if (key.empty()) return fail(TELO_ERR_BAD_CONFIG, EINVAL, where + ": parameter without a name");
    return setParameter(key, trimBlanks(line.substr(equals + 1)), where, depth);
}

bool SambaConfig::setParameter(const std::string &key, const std::string &value,
                               const std::string &where, int depth) {
    std::string name = parameterName(key);
    Service &service = current_ < 0 ? global_ : services_[current_];
    if (name == "include") {
        if (depth >= kMaxIncludeDepth) {
            return fail(TELO_ERR_BAD_CONFIG, ELOOP,
                        where + ": includes nested deeper than " +
                            std::to_string(kMaxIncludeDepth) + " (an include loop?)");
        }
        // Samba fills in its %-macros for the connecting client, which a lookup has not.
        if (value.find('%') != std::string::npos) return true;
        return readFile(value, depth + 1, where);
    }
    if (name == "path" || name == "directory") {
        service.path = value;
        service.setHere |= kSetPath;
    } else if (name == "available" || name == "printable" || name == "printok") {
        bool flag = false;
        if (!parseBoolean(value, flag)) {
            return fail(TELO_ERR_BAD_CONFIG, EINVAL,
                        where + ": " + key + " = " + value + ": not a boolean");
        }
        bool available = name == "available";
        (available ? service.available : service.printable) = flag;
        service.setHere |= available ? kSetAvailable : kSetPrintable;
    } else if (name == "copy") {
        if (current_ < 0) return fail(TELO_ERR_BAD_CONFIG, EINVAL, where + ": copy in [global]");
        auto found = byName_.find(lowerCase(value));
        if (found == byName_.end()) {
            return fail(TELO_ERR_BAD_CONFIG, EINVAL,
                        where + ": copy of unknown section [" + value + "]");
        }
        if (static_cast<int>(found->second) == current_) {
            return fail(TELO_ERR_BAD_CONFIG, EINVAL, where + ": copy of the section itself");
        }
        // What this section set itself stays; the rest comes from the copied section.
        const Service &source = services_[found->second];
        if (!(service.setHere & kSetPath)) service.path = source.path;
        if (!(service.setHere & kSetAvailable)) service.available = source.available;
        if (!(service.setHere & kSetPrintable)) service.printable = source.printable;
        return true;
    }
    return true;
}

std::vector<Share> SambaConfig::shares() const {
    std::vector<Share> shares;
    for (const Service &service : services_) {
        if (strcasecmp(service.name.c_str(), "homes") == 0 ||
            strcasecmp(service.name.c_str(), "printers") == 0 || service.printable ||
            !service.available) {
            continue;
        }
        std::string path = unquote(service.path);
        if (path.empty() || path[0] != '/' || path.find('%') != std::string::npos) continue;
        shares.push_back({service.name, path});
    }
    return shares;
}

}  // namespace telo_platform
