// What a rewrite of a configuration file would do, known before it is done: the lines it would
// lose, and the file it would write (for --dry-run).
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_CONFIG_REWRITE_H
#define TELO_TOOLS_TELOBACKUP_UTIL_CONFIG_REWRITE_H

#include <set>
#include <string>

namespace telocli {

// The whole text of the configuration file `file`, opened as the library opens it (no link
// another user planted is followed, a regular file only). False when it does not exist; any
// other failure throws CommandError(kExitInvalidFile) naming the file.
bool readConfigText(const std::string &file, std::string &text);

// A rewrite of `section` keeps, of the key lines of every copy of the section, only the keys of
// the first copy whose values are JSON (a later duplicate winning). Throws
// CommandError(kExitInvalidFile) naming "file:line: text" for each other key line whose value
// the rewrite would drop or replace by the first copy's, unless its key is in `touched` (set or
// removed by the command on purpose). `text` is the file as it is now.
void refuseLostLines(const std::string &file, const std::string &text, const std::string &section,
                     const std::set<std::string> &touched);

// A private copy of a configuration file for a dry run, removed with this object.
class DryRunCopy {
  public:
    // Copies `file` (when it exists) into a new private directory. Throws CommandError.
    explicit DryRunCopy(const std::string &file);
    ~DryRunCopy();
    DryRunCopy(const DryRunCopy &) = delete;
    DryRunCopy &operator=(const DryRunCopy &) = delete;

    const std::string &path() const { return path_; }
    const std::string &before() const { return before_; }
    // The copy's text now ("" when the command did not create it).
    std::string after() const;

  private:
    std::string directory_, path_, before_;
};

}  // namespace telocli

#endif
