// The public calls of SectionConfig; the line grammar is in line_scanner, rewrites in rewrite.
#include "telobackup/section_config.h"

#include <fcntl.h>

#include <cerrno>
#include <vector>

#include "internal/safe_open.h"
#include "internal/section_rewrite.h"
#include "internal/stale_temporaries.h"
#include "internal/unique_owners.h"
#include "section_config/line_scanner.h"
#include "section_config/rewrite.h"
#include "telobackup/json_text.h"

namespace TELO {
namespace Backup {

using internal::ConfigFile;
using internal::UniqueFile;

SectionConfig::LineInfo::LineInfo()
    : type(LINE_BLANK), line(nullptr), section(nullptr), key(nullptr), value(nullptr) {}

bool SectionConfig::parseFile(FILE *stream, ParseCallback callback, void *arg) {
    if (stream == nullptr || callback == nullptr) {
        errno = EINVAL;
        return false;
    }
    return internal::scanStream(stream, [callback, arg](bool &stop, const LineInfo &info) {
        return callback(stop, info, arg);
    });
}

bool SectionConfig::writeSectionName(FILE *stream, const std::string &name) {
    return internal::putSectionName(stream, name.c_str());
}

bool SectionConfig::writeKeyValue(FILE *stream, const std::string &key, const std::string &value) {
    return internal::putKeyValue(stream, key.c_str(), value.c_str());
}

bool SectionConfig::writeLine(FILE *stream, const std::string &line) {
    return internal::putText(stream, line.c_str());
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
    UniqueFile in = internal::openConfigStream(file, O_RDONLY, "rb", opened);
    if (!in) return false;
    bool inSection = false, found = false;
    bool scanned = internal::scanStream(in.get(), [&](bool &stop, const LineInfo &info) {
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
    UniqueFile in = internal::openConfigStream(file, O_RDONLY, "rb", opened);
    if (!in) return false;
    return internal::scanStream(in.get(), [&sections](bool &, const LineInfo &info) {
        if (info.type == LINE_SECTION) sections.push_back(info.sectionName);
        return true;
    });
}

bool SectionConfig::updateSection(const std::string &path, const std::string &section,
                                  const Json::Value &values, bool create) {
    return internal::updateSections(path, {{&section, &values}}, create);
}

bool SectionConfig::removeSection(const std::string &path, const std::string &section) {
    return internal::removeSectionCopies(path, section);
}

bool SectionConfig::updateSections(const std::string &path, const Json::Value &sections,
                                   bool create) {
    if (!sections.isObject()) {
        errno = EINVAL;
        return false;
    }
    if (sections.empty()) return true;
    const std::vector<std::string> names = sections.getMemberNames();
    std::vector<internal::SectionUpdate> updates;
    updates.reserve(names.size());
    for (const std::string &name : names) updates.push_back({&name, &sections[name]});
    return internal::updateSections(path, updates, create);
}

FILE *SectionConfig::openFile(const std::string &file) {
    ConfigFile opened;
    if (!internal::openConfigFile(file, O_RDONLY, 0, opened)) return nullptr;
    FILE *stream = fdopen(opened.fd.get(), "rb");
    if (stream != nullptr) opened.fd.release();
    return stream;
}

int SectionConfig::removeStaleTemporaries(const std::string &file) {
    return internal::removeStaleTemporaries(file);
}

}  // namespace Backup
}  // namespace TELO
