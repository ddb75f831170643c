// The section config scanner, load, list, update and remove on arbitrary file contents and
// names. Invariants: every line reaches the callback once; a rewrite either fails leaving the
// file byte-identical, or changes only the target section (every other section loads as
// before, the list of names is as expected, the new values read back exactly); a rewrite of its
// own result changes nothing; no temporary is ever left beside the file.
#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "support/syslog_capture.h"
#include "telobackup/section_config.h"

using TELO::Backup::SectionConfig;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

void removeScratch();

// Never destroyed, so that the exit handler can still use it.
const std::string &scratchDir() {
    static const std::string *dir = [] {
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        auto *path = new std::string(base + "/telo-section-fuzz.XXXXXX");
        check(mkdtemp(&(*path)[0]) != nullptr);
        atexit(removeScratch);
        return path;
    }();
    return *dir;
}

void removeScratch() {
    unlink((scratchDir() + "/c.conf").c_str());
    rmdir(scratchDir().c_str());
}

void writeText(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readText(const std::string &path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// Only the config file itself is in the scratch directory.
bool alone() {
    DIR *dir = opendir(scratchDir().c_str());
    int entries = 0;
    while (struct dirent *entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) ++entries;
    }
    closedir(dir);
    return entries == 1;
}

using Loads = std::map<std::string, Json::Value>;

void snapshot(const std::string &file, std::list<std::string> &names, Loads &loads) {
    check(SectionConfig::listSection(file, names));
    for (const std::string &name : names) {
        if (loads.size() > 32) break;
        Json::Value values;
        check(SectionConfig::loadSection(file, name, values));
        loads[name] = values;
    }
}

// Every section but `except` loads as in `before`.
void checkOthers(const std::string &file, const Loads &before, const std::string &except) {
    for (const auto &entry : before) {
        if (entry.first == except) continue;
        Json::Value values;
        check(SectionConfig::loadSection(file, entry.first, values));
        check(values == entry.second);
    }
}

bool countLine(bool &, const SectionConfig::LineInfo &info, void *arg) {
    check((info.type == SectionConfig::LINE_KEY_VALUE) == (info.key != nullptr));
    check((info.line == nullptr) == (info.key != nullptr));
    ++*static_cast<size_t *>(arg);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    size_t first = input.find('\n');
    size_t second = first == std::string::npos ? first : input.find('\n', first + 1);
    std::string section = input.substr(0, first);
    std::string key =
        first == std::string::npos ? "k" : input.substr(first + 1, second - first - 1);
    std::string content = second == std::string::npos ? input : input.substr(second + 1);
    const std::string file = scratchDir() + "/c.conf";

    size_t lines = 0;
    FILE *stream = fmemopen(const_cast<char *>(content.data()), content.size(), "r");
    if (stream != nullptr) {
        check(SectionConfig::parseFile(stream, countLine, &lines));
        fclose(stream);
        size_t newlines = static_cast<size_t>(std::count(content.begin(), content.end(), '\n'));
        check(lines == newlines + (content.empty() || content.back() == '\n' ? 0 : 1));
    }

    writeText(file, content);
    std::list<std::string> names;
    Loads before;
    snapshot(file, names, before);

    Json::Value values;
    values[key] = 1;
    values["s"] = "text";
    if (SectionConfig::updateSection(file, section, values, true)) {
        std::list<std::string> after, expected = names;
        check(SectionConfig::listSection(file, after));
        if (std::find(names.begin(), names.end(), section) == names.end()) {
            expected.push_back(section);
        }
        check(after == expected);
        Json::Value loaded;
        check(SectionConfig::loadSection(file, section, loaded));
        check(loaded == values);
        checkOthers(file, before, section);
        std::string once = readText(file);
        check(SectionConfig::updateSection(file, section, values, false));
        check(readText(file) == once);
    } else {
        check(errno == EINVAL);
        check(readText(file) == content);
    }
    check(alone());

    writeText(file, content);
    if (SectionConfig::removeSection(file, section)) {
        std::list<std::string> after, expected;
        check(SectionConfig::listSection(file, after));
        for (const std::string &name : names) {
            if (name != section) expected.push_back(name);
        }
        check(after == expected);
        checkOthers(file, before, section);
        Json::Value loaded;
        check(!SectionConfig::loadSection(file, section, loaded) && errno == ENOENT);
    } else {
        check(errno == ENOENT);
        check(readText(file) == content);
    }
    check(alone());
    testsupport::clearCapturedLines();
    return 0;
}
