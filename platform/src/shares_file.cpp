// The administrator's shares file, in the library's section config format.
#include <json/json.h>

#include <memory>
#include <unordered_map>

#include "share_config.h"

namespace telo_platform {

namespace {

// The section config format's whitespace: TAB, LF, CR and SPACE.
std::string trimWhitespace(const std::string &text) {
    const char *blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The value of a "path" line: the string of a JSON string text, else the text itself.
std::string pathValue(const std::string &text) {
    if (text.empty() || text[0] != '"') return text;
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // a bare string is the whole text
    builder["stackLimit"] = 4;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr) &&
            value.isString()) {
            return value.asString();
        }
    } catch (const std::exception &) {
        // Not a JSON text: the plain value.
    }
    return text;
}

}  // namespace

bool parseSharesFile(const std::string &content, std::vector<Share> &shares) {
    std::vector<Share> found;
    std::unordered_map<std::string, size_t> byName;
    int current = -1;
    for (size_t pos = 0; pos < content.size();) {
        size_t end = content.find('\n', pos);
        if (end == std::string::npos) end = content.size();
        std::string line = trimWhitespace(content.substr(pos, end - pos));
        pos = end + 1;
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            if (line.back() != ']') continue;
            std::string name = line.substr(1, line.size() - 2);
            auto known = byName.emplace(name, found.size());
            if (known.second) found.push_back({name, std::string()});
            current = static_cast<int>(known.first->second);
            continue;
        }
        size_t equals = line.find('=');
        if (current < 0 || equals == std::string::npos ||
            trimWhitespace(line.substr(0, equals)) != "path") {
            continue;
        }
        found[current].path = pathValue(trimWhitespace(line.substr(equals + 1)));
    }
    for (const Share &share : found) {
        const std::string &path = share.path;
        // The C interface hands out names and paths as NUL-terminated texts.
        bool text =
            share.name.find('\0') == std::string::npos && path.find('\0') == std::string::npos;
        if (text && !share.name.empty() && !path.empty() && path[0] == '/') {
            shares.push_back(share);
        }
    }
    return !found.empty();
}

}  // namespace telo_platform
