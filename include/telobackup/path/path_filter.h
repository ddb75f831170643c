// Include/exclude selection of paths by wildcard patterns, for backup and restore programs.
//
// Every call is synchronous on the caller's thread and takes no lock: concurrent decisions and
// get...Pattern calls are safe while no pattern is added or cleared. Nothing is logged; errno is
// left unchanged. Patterns are compiled when added, so a decision allocates nothing.
//
// The pattern language; a pattern must account for the whole path:
//   ?    any one byte except "/"
//   *    any run of bytes without "/", possibly empty
//   **   (two or more stars) any run of bytes, "/" included, possibly empty
//   \c   the byte c itself ("\*" is a star); a lone "\" at the end never matches
//   any other byte, "[" included, matches itself
// So "/a/*" matches "/a/b" but not "/a/b/c"; "/a/**" matches both; "*.tmp" matches no absolute
// path (write "/**/*.tmp"); "**" matches every path, "" included.
#ifndef TELOBACKUP_PATH_PATH_FILTER_H
#define TELOBACKUP_PATH_PATH_FILTER_H

#include <list>
#include <memory>
#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class PathFilterPrivate;

// Three pattern lists (prior include, include, exclude) and two decision rules over them.
// Patterns are bytes up to their first NUL byte, stored as given; paths are compared up to
// their first NUL byte. Only std::bad_alloc is thrown, except by get...Pattern (below).
class TELO_EXPORT PathFilter {
  public:
    PathFilter();
    ~PathFilter();
    PathFilter(const PathFilter &) = delete;
    PathFilter &operator=(const PathFilter &) = delete;
    // Hands the compiled patterns over without copying them. The moved-from filter may only be
    // destroyed or assigned to.
    //     PathFilter homeFilter() { PathFilter f; f.addExcludePattern("/home/*/.cache/**");
    //                               return f; }
    PathFilter(PathFilter &&other) noexcept;
    PathFilter &operator=(PathFilter &&other) noexcept;

    // Appends one pattern to its list. Always returns true.
    bool addIncludePattern(const std::string &pattern);
    bool addPriorIncludePattern(const std::string &pattern);
    bool addExcludePattern(const std::string &pattern);

    // Moves every pattern of `patterns` into the list with std::list::merge (byte-wise order;
    // two sorted lists give a sorted list), leaving `patterns` empty. Always returns true.
    bool addIncludePattern(std::list<std::string> &patterns);
    bool addPriorIncludePattern(std::list<std::string> &patterns);
    bool addExcludePattern(std::list<std::string> &patterns);

    // True when `path` is to be left out: false when a prior include or an include pattern
    // matches, else true when an exclude pattern matches, else false. Includes are exceptions
    // to the exclusions; with no patterns at all nothing is left out.
    bool filterOut(const std::string &path) const;

    // True when `path` is to be left out: false when a prior include pattern matches, else true
    // when an exclude pattern matches, else false only when an include pattern matches.
    // Exclusions win over includes, and with an empty include list everything is left out.
    bool filterOutIncludeException(const std::string &path) const;

    // The same two decisions for callers built against the first release, which had them
    // non-const; they give the same results.
    bool filterOut(const std::string &path);
    bool filterOutIncludeException(const std::string &path);

    // Empties the include and the exclude list. Prior include patterns stay: only destroying
    // the filter removes them.
    void clear();

    // Appends to `out` each pattern of the list that can match below the directory `prefix`,
    // re-rooted at the prefix's last component: with "/vol/share/dir/*.txt" and the prefix
    // "/vol/share/dir", "/dir/*.txt" is appended. A pattern equal to the prefix gives that last
    // component alone ("/a/b" under "/a/b" gives "/b"); a run of stars stands for any depth
    // ("/a/***/b" under "/a/x" gives "/x/**/b"). `out` is not cleared first.
    // An empty `prefix` makes `out` an exact copy of the list instead.
    // Throws std::out_of_range when a pattern applies and `prefix` holds no "/".
    // Always returns true.
    bool getIncludePattern(std::list<std::string> &out, const std::string &prefix);
    bool getPriorIncludePattern(std::list<std::string> &out, const std::string &prefix);
    bool getExcludePattern(std::list<std::string> &out, const std::string &prefix);

  private:
    std::unique_ptr<PathFilterPrivate> d_;
};

}  // namespace Backup
}  // namespace TELO

#endif
