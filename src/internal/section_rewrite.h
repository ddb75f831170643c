// A rewrite of a section config file that replaces several sections at once, for changes that
// readers must never see half done (a new section together with the counter that numbers it).
#ifndef TELO_SRC_INTERNAL_SECTION_REWRITE_H
#define TELO_SRC_INTERNAL_SECTION_REWRITE_H

#include <json/value.h>

#include <string>
#include <vector>

namespace TELO {
namespace Backup {
namespace internal {

struct SectionUpdate {
    const std::string *section;
    const Json::Value *values;
};

// SectionConfig::updateSection for every entry of `updates` in one rewrite of `path`: each
// section's keys are replaced by its values wherever it stands; with `create`, a missing file
// is created and the sections not found are appended in the order given. Results, log lines
// and errno as updateSection's; on failure the file is left as it was.
bool updateSections(const std::string &path, const std::vector<SectionUpdate> &updates,
                    bool create);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
