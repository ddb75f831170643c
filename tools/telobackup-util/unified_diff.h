// The unified diff of two texts, as `diff -u` prints it, for the --dry-run of writing commands.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_UNIFIED_DIFF_H
#define TELO_TOOLS_TELOBACKUP_UTIL_UNIFIED_DIFF_H

#include <string>

namespace telocli {

// "--- <oldName>\n+++ <newName>\n" and the hunks that turn `oldText` into `newText`, each with
// up to three lines of context; "" when the texts are equal. A last line without a newline is
// followed by "\ No newline at end of file". The edit is a shortest one while it is cheap to
// find; past that (texts that differ nearly everywhere) the differing middle is replaced whole.
std::string unifiedDiff(const std::string &oldText, const std::string &newText,
                        const std::string &oldName, const std::string &newName);

}  // namespace telocli

#endif
