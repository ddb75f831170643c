// INI-like section configuration files whose values are one-line JSON texts: a line scanner,
// line writers, and loading, listing, replacing and removing one section of a file.
//
// Every call is synchronous on the caller's thread and takes no lock: writers of one file must
// be serialised by the caller (OptionMap's lock token does that). Readers are safe against
// writers because a file is only ever replaced by rename. Diagnostics go to the system log as
// "(pid) [err] section_config:line ...".
//
// File format: lines end with "\n" (a CR before it is trimmed like any blank); each line is
// trimmed of TAB, LF, CR and SPACE at both ends, then read as a blank line, a comment ("#..."),
// a section header ("[name]": every byte between the first "[" and the last "]", so "[a]b]"
// names "a]b" and "[]" names ""), a key line ("key = value", split at the first "=", both sides
// trimmed) or an invalid line (anything else, "[" without a closing "]" included). Key lines
// belong to the header above them. A NUL byte ends the text of its line: the bytes after it are
// ignored, and a rewrite drops them. Lines may be of any length.
//
// Symbolic links in a configuration path (at the file or at any directory on the way) are
// followed only when owned by root, by the caller's effective uid, or by the owner of what they
// point at; any other link fails every operation with errno EPERM before the file is opened
// for reading or writing (logged where an open failure is: "open failed, %m"), and a missing
// file is created through a link only when the link is root's or the caller's. So a user who
// plants a link in their own directory cannot make a root caller read or write elsewhere.
//
// Rewrites (updateSection, updateSections, removeSection) write the whole file to a temporary
// beside it ("<file>.XXXXXX"), sync it to storage, move it over the file with Path::renameWithMode
// (mode, owner and ACL kept) and sync the directory: a crash leaves the old file or the new one.
// Lines are written back trimmed ("key=value", "[name]", comments and invalid lines as trimmed
// text). A rewrite through a trusted link replaces the link's target; every step after the open
// happens in the directory the file was found in, and the temporary is checked through its
// descriptor before and after the rename. A process killed during a rewrite can leave its temporary
// behind; such files are never read, and a caller that serialises its writers may remove
// "<file>.??????" entries that are regular files while it holds its lock.
#ifndef TELOBACKUP_SECTION_CONFIG_H
#define TELOBACKUP_SECTION_CONFIG_H

#include <json/value.h>

#include <cstdio>
#include <list>
#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT SectionConfig {
  public:
    // Line kinds handed to parseFile callbacks.
    enum LineType {
        LINE_BLANK = 0,
        LINE_INVALID = 1,
        LINE_COMMENT = 2,
        LINE_SECTION = 3,
        LINE_KEY_VALUE = 4,
    };

    // One scanned line. The pointers are valid only during the callback call that receives
    // them (they point into the scanner's reused buffer).
    struct TELO_EXPORT LineInfo {
        int type;                 // a LineType
        const char *line;         // trimmed text; null for LINE_KEY_VALUE
        const char *section;      // name of the latest header above, null before the first one
        const char *key;          // trimmed key of a key line, else null
        const char *value;        // trimmed value text of a key line, else null
        std::string sectionName;  // storage of `section`

        LineInfo();
    };

    // Return false to make parseFile's result false; set `stop` to end the scan after this line.
    typedef bool (*ParseCallback)(bool &stop, const LineInfo &info, void *arg);

    // Calls `callback(stop, info, arg)` once for every line from the stream's position to its
    // end (blank and invalid lines included) until a callback sets `stop`. The stream is not
    // closed; after a stop it is positioned just after the stopping line when it is seekable.
    // Returns false when a callback returned false (the scan still goes on) or on a read error,
    // which logs "read fd failed [%d]" with ferror()'s value (errno from the read).
    static bool parseFile(FILE *stream, ParseCallback callback, void *arg);

    // Write "[name]\n", "key=value\n" and "line\n". True when the whole text was accepted by
    // the stream; otherwise false after logging "fprintf failed, %m". A text is written up to
    // its first NUL byte.
    static bool writeSectionName(FILE *stream, const std::string &name);
    static bool writeKeyValue(FILE *stream, const std::string &key, const std::string &value);
    static bool writeLine(FILE *stream, const std::string &line);

    // Replaces `values` with the keys of the first section named `section` (byte-exact match):
    // each value is parsed as JSON and a text that does not parse (one nested more than 1,000
    // levels deep included) is skipped silently; a later duplicate key wins. Reading stops at
    // the header after that section. `values` ends as an object or null, whatever it held.
    // Failure: false; errno ENOENT when the file is missing or has no such section (nothing
    // logged), else errno from fopen or the read (a read error is logged by parseFile).
    static bool loadSection(const std::string &file, const std::string &section,
                            Json::Value &values);

    // Replaces `sections` with every header's name in file order, duplicates included.
    // Failure: false, errno from fopen (ENOENT for a missing file, not logged) or the read.
    static bool listSection(const std::string &file, std::list<std::string> &sections);

    // Makes every section named `section` hold exactly the members of `values` (an object or
    // null), written right under its header in the object's order as "key=<one-line JSON>";
    // comments, blank and invalid lines inside it are kept after them. When the section is
    // missing it is appended at the end if `create` is true; a missing file is then created
    // with just that section (mode 0666 less the umask).
    // Names that could not be read back as written are refused before the file is touched
    // (false, errno EINVAL, logged "invalid name [%s]"): a section name holding a newline or
    // NUL byte, and a key holding a newline, NUL or "=", with blanks at either end, or
    // beginning with "#" or "[". Values never break lines (JSON escapes control characters).
    // Failure: false with the file byte-identical and no temporary left; errno ENOENT (missing
    // file or section without `create`; not logged), EACCES (file not writable; not logged),
    // else errno of the failing step, logged as "open failed, %m", "create temp failed, %m",
    // "temp.getFile failed, %m", "write section name failed, %m", "write key-value failed, %m",
    // "parse failed, %m", "failed to write section name, %m", "failed to write key-value, %m",
    // "fsync temp file failed, %m", "failed close temp file", "failed close section file", or
    // by Path::renameWithMode. A failed sync of the directory after the rename is logged
    // ("fsync dir failed, %m") but the result stays true: the new file is already in place.
    static bool updateSection(const std::string &file, const std::string &section,
                              const Json::Value &values, bool create);

    // Deletes every section named `section` with all its lines (comments and blank lines
    // inside it included); the rest of the file is kept, normalised as above.
    // Failure: false with the file byte-identical and no temporary left; errno ENOENT (missing
    // file or section; not logged), EACCES (not logged), else errno of the failing step, logged
    // as "open failed, %m", "create temp failed, %m", "temp open failed failed, %m",
    // "fsync temp file failed, %m", "failed close temp file", "failed close section file",
    // "rename failed, %m"; a failed write while copying is not logged. The directory sync
    // behaves as for updateSection.
    static bool removeSection(const std::string &file, const std::string &section);

    // updateSection for several sections in ONE rewrite of `file`, so that readers see all of
    // them changed or none: `sections` is an object whose members name the sections, each an
    // object (or null) of the keys that section must hold exactly. Every copy of each section
    // gets its members; with `create`, a missing file is created and the sections not found
    // are appended at the end in the object's order (jsoncpp keeps members sorted by name).
    // Every name is checked, as updateSection checks them, before the file is touched. An
    // object without members leaves the file untouched (not even opened) and returns true.
    // Failure: false with the file byte-identical and no temporary left; errno EINVAL when
    // `sections` is no object (nothing logged), else as updateSection, with the same log lines
    // (a member that is neither an object nor null is refused as an invalid name); ENOENT
    // without `create` when the file or any of the sections is missing (not logged).
    static bool updateSections(const std::string &file, const Json::Value &sections,
                               bool create);

    // Opens the configuration file `file` for reading as loadSection opens it: symbolic links
    // are followed only as described above, and only a regular file is opened (without
    // blocking, so a FIFO cannot stall the call). Returns a stream at the start of the file,
    // close-on-exec, which the caller closes (for parseFile, or to read the whole text).
    // Failure: null; errno ENOENT (missing), EPERM (a link not followed), EISDIR or EINVAL (no
    // regular file), else from open(2) or fdopen(3). Nothing is logged.
    static FILE *openFile(const std::string &file);

    // Removes the temporaries that rewrites of `file` killed on the way left behind: entries of
    // the file's directory (found as openFile finds the file) named the file's name, a dot and
    // six letters or digits, that are regular files of the caller's effective uid unchanged for
    // ten minutes. Links are not followed; every step is relative to the directory. Call it
    // only while holding the lock that serialises the writers of `file`, so that no live
    // rewrite loses its temporary. Returns how many were removed; a failure leaves the entry
    // for the next writer. Nothing is logged; errno is kept.
    static int removeStaleTemporaries(const std::string &file);
};

}  // namespace Backup
}  // namespace TELO

#endif
