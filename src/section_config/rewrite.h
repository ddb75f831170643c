// Rewrites of a section config file: every line goes to a temporary beside the file, copied as
// it is or written back normalised, dropped, or followed by a section's new members; the
// finished temporary replaces the file in one rename that keeps its mode and owner.
#ifndef TELO_SRC_SECTION_CONFIG_REWRITE_H
#define TELO_SRC_SECTION_CONFIG_REWRITE_H

#include <cstdio>
#include <string>

#include "internal/section_rewrite.h"

namespace TELO {
namespace Backup {
namespace internal {

// The line writers behind SectionConfig's public ones: "[name]\n", "key=value\n" and
// "text\n", each text up to its first NUL byte. False after logging "fprintf failed, %m".
bool putSectionName(FILE *stream, const char *name);
bool putKeyValue(FILE *stream, const char *key, const char *value);
bool putText(FILE *stream, const char *text);

// SectionConfig::removeSection: every copy of `section` goes with all its lines, in one
// rewrite. Results, log lines and errno as documented there.
bool removeSectionCopies(const std::string &path, const std::string &section);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
