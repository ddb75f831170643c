// Shares of the generic server: the administrator's shares file, or else Samba's share sections.
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mount_table.h"
#include "platform_error.h"
#include "telo/platform.h"

namespace {

constexpr char kPlatformFile[] = "src/share.cpp";
constexpr int kMaxIncludeDepth = 16;

struct Share {
    std::string name;
    std::string path;
};

const char *configuredFile(const char *variable, const char *fallback) {
    const char *value = getenv(variable);
    return value != nullptr && *value != '\0' ? value : fallback;
}

std::string trim(const std::string &text) {
    const char *blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Calls `line` for each line of `file`, any length. False with errno set when the file cannot
// be opened or read.
template <typename F>
bool forEachLine(const std::string &file, F line) {
    std::unique_ptr<FILE, int (*)(FILE *)> in(fopen(file.c_str(), "re"), fclose);
    if (!in) return false;
    char *buffer = nullptr;
    size_t capacity = 0;
    ssize_t length;
    bool ok = true;
    while (ok && (length = getline(&buffer, &capacity, in.get())) >= 0) {
        ok = line(std::string(buffer, static_cast<size_t>(length)));
    }
    int error = ferror(in.get()) ? errno : 0;
    free(buffer);
    if (error != 0) errno = error;
    return ok && error == 0;
}

void appendUtf8(std::string &out, unsigned long code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Exactly four hex digits (strtoul alone would also take blanks, a sign or "0x").
bool hex4(const std::string &text, size_t at, unsigned long &code) {
    if (at + 4 > text.size()) return false;
    for (size_t i = at; i < at + 4; ++i) {
        if (!isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    code = strtoul(text.substr(at, 4).c_str(), nullptr, 16);
    return true;
}

// The value of a JSON string text ("\"/srv/a\""), escapes decoded; false when `text` is not
// exactly one JSON string or decodes to a NUL byte.
bool parseJsonString(const std::string &text, std::string &out) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    out.clear();
    for (size_t i = 1; i + 1 < text.size(); ++i) {
        char c = text[i];
        if (c == '"') return false;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i + 1 >= text.size()) return false;
        switch (text[i]) {
            case '"':
            case '\\':
            case '/':
                out += text[i];
                continue;
            case 'b':
                out += '\b';
                continue;
            case 'f':
                out += '\f';
                continue;
            case 'n':
                out += '\n';
                continue;
            case 'r':
                out += '\r';
                continue;
            case 't':
                out += '\t';
                continue;
            case 'u':
                break;
            default:
                return false;
        }
        unsigned long code, low;
        if (!hex4(text, i + 1, code)) return false;
        i += 4;
        if (code >= 0xD800 && code < 0xDC00) {  // a surrogate pair
            if (text.compare(i + 1, 2, "\\u") != 0 || !hex4(text, i + 3, low) || low < 0xDC00 ||
                low >= 0xE000) {
                return false;
            }
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            i += 6;
        }
        if (code == 0) return false;
        appendUtf8(out, code);
    }
    return true;
}

// Share paths are compared without trailing slashes; relative paths name no share.
bool normalSharePath(std::string &path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return !path.empty() && path[0] == '/';
}

// The shares file: "[name]" headers and key=value lines whose values are JSON texts; the
// share's directory is the JSON string of its "path" key. "#" starts a comment line.
bool readSharesFile(const std::string &file, std::vector<Share> &shares) {
    std::vector<Share> found;
    bool inSection = false;
    bool ok = forEachLine(file, [&](const std::string &raw) {
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#') return true;
        if (line[0] == '[' && line.back() == ']' && line.size() >= 2) {
            found.push_back({line.substr(1, line.size() - 2), std::string()});
            inSection = true;
            return true;
        }
        size_t equals = line.find('=');
        if (!inSection || equals == std::string::npos || trim(line.substr(0, equals)) != "path") {
            return true;
        }
        std::string path;
        if (parseJsonString(trim(line.substr(equals + 1)), path)) found.back().path = path;
        return true;
    });
    if (!ok) return false;
    for (Share &share : found) {
        if (normalSharePath(share.path)) shares.push_back(share);
    }
    return true;
}

// Samba's configuration: "[name]" sections, "key = value" parameters with keys compared
// without case and blanks, ";" and "#" comment lines, "\" continuing a line, "include = file"
// read in place. A section named twice is one share; its last path wins.
class SmbReader {
  public:
    std::vector<Share> shares;

    bool read(const std::string &file, int depth) {
        std::string pending;
        return forEachLine(file, [&](const std::string &raw) {
            std::string line = trim(raw);
            if (!line.empty() && line.back() == '\\') {
                pending += line.substr(0, line.size() - 1);
                return true;
            }
            line = trim(pending + line);
            pending.clear();
            if (line.empty() || line[0] == ';' || line[0] == '#') return true;
            if (line[0] == '[') {
                size_t close = line.find(']');
                section_ = trim(line.substr(1, close == std::string::npos ? close : close - 1));
                return true;
            }
            size_t equals = line.find('=');
            if (equals == std::string::npos) return true;
            std::string key, value = trim(line.substr(equals + 1));
            for (char c : line.substr(0, equals)) {
                if (c != ' ' && c != '\t') key += static_cast<char>(tolower(c));
            }
            // Includes whose names need Samba's macros cannot be followed; a missing one is
            // skipped, as Samba does.
            if (key == "include" && depth < kMaxIncludeDepth &&
                value.find('%') == std::string::npos) {
                read(value, depth + 1);
            } else if (key == "path" && isShareSection()) {
                setPath(value);
            }
            return true;
        });
    }

  private:
    bool isShareSection() const {
        static const char *const kSpecial[] = {"global", "homes", "printers", "print$"};
        if (section_.empty()) return false;
        for (const char *name : kSpecial) {
            if (strcasecmp(section_.c_str(), name) == 0) return false;
        }
        return true;
    }

    void setPath(const std::string &path) {
        for (Share &share : shares) {
            if (strcasecmp(share.name.c_str(), section_.c_str()) == 0) {
                share.path = path;
                return;
            }
        }
        shares.push_back({section_, path});
    }

    std::string section_;
};

}  // namespace

extern "C" int TELOShareNamePathGet(const char *path, char *name, int nameSize, char *sharePath,
                                    int sharePathSize) {
    if (path == nullptr || *path == '\0' || name == nullptr || nameSize <= 0 ||
        sharePath == nullptr || sharePathSize <= 0) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return -1;
    }
    std::vector<Share> shares;
    if (!readSharesFile(configuredFile("TELO_SHARES_CONF", "/etc/telobackup/shares.conf"),
                        shares)) {
        if (errno != ENOENT) {
            TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
            return -1;
        }
        SmbReader smb;
        if (!smb.read(configuredFile("TELO_SMB_CONF", "/etc/samba/smb.conf"), 0)) {
            TELO_PLATFORM_FAIL(errno == ENOENT ? TELO_ERR_NOT_FOUND : TELO_ERR_SYSTEM);
            return -1;
        }
        for (Share &share : smb.shares) {
            if (normalSharePath(share.path)) shares.push_back(share);
        }
    }
    const Share *best = nullptr;
    for (const Share &share : shares) {
        if (!telo_platform::isComponentPrefix(share.path, path)) continue;
        if (best == nullptr || share.path.size() > best->path.size()) best = &share;
    }
    if (best == nullptr) {
        errno = ENOENT;
        TELO_PLATFORM_FAIL(TELO_ERR_NOT_FOUND);
        return -1;
    }
    if (best->name.size() + 1 > static_cast<size_t>(nameSize) ||
        best->path.size() + 1 > static_cast<size_t>(sharePathSize)) {
        errno = ERANGE;
        TELO_PLATFORM_FAIL(TELO_ERR_BUFFER_SMALL);
        return -1;
    }
    memcpy(name, best->name.c_str(), best->name.size() + 1);
    memcpy(sharePath, best->path.c_str(), best->path.size() + 1);
    return 0;
}
