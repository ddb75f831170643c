// config dump: every section of a configuration file as one JSON object of objects.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_CONFIG_DUMP_H
#define TELO_TOOLS_TELOBACKUP_UTIL_CONFIG_DUMP_H

#include <string>

namespace telocli {

// Writes {"<section>":{"<key>":<value>,...},...} and a newline to standard output, reading the
// file once: each section as SectionConfig::loadSection reads it (the first copy of a name, a
// later duplicate key winning, values that do not parse skipped), in byte order of the names.
// A read error throws CommandError(kExitInvalidFile) naming the file as `name`.
void dumpSections(const std::string &file, const std::string &name);

}  // namespace telocli

#endif
