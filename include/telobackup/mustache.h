// "{{name}}" templates filled from a callback, a string map or a JSON object.
//
// Plain substitution: no sections, loops, escaping or nesting. Every call is synchronous on the
// caller's thread and takes no lock. Nothing is logged.
#ifndef TELOBACKUP_MUSTACHE_H
#define TELOBACKUP_MUSTACHE_H

#include <json/value.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// Maps a tag name to its text: returns true and fills the string when the name is known.
using VarsMapper = std::function<bool(const std::string &, std::string &)>;

// Replaces every "{{name}}" of `tmpl` with the mapper's text for `name` (taken as written,
// blanks kept); a tag the mapper does not know disappears. The innermost opener before a closer
// wins ("{{a {{b}}" keeps "{{a " and fills b); an opener without a later closer and everything
// after it are copied unchanged; inserted text is never scanned again.
// Example: replaceMustache("Hello {{name}}!", m) == "Hello Bob!" when m maps name to Bob.
// Throws std::bad_function_call at the first tag when `mapper` is empty.
TELO_EXPORT std::string replaceMustache(const std::string &tmpl, VarsMapper mapper);

// The same with the variables of a string map (exact byte comparison of names).
TELO_EXPORT std::string replaceMustache(const std::string &tmpl,
                                        const std::map<std::string, std::string> &vars);

// The same with the members of a JSON object: a null member gives "", a string member its text
// (or, with `jsonStrings` true, its quoted JSON text), any other member its one-line JSON text
// (jsonToString). A name that is not a member disappears.
TELO_EXPORT std::string replaceMustache(const std::string &tmpl, const Json::Value &vars,
                                        bool jsonStrings);

// ---- Strict forms ----
// Each fills exactly as the form above with the same variables, and also replaces `missing`
// with the name of every tag that had no value (the mapper returned false, the map has no such
// key, the object no such member), once each, in the order of first appearance. A JSON member
// that is null has a value (""), so it is not missing. An empty `missing` means the result has
// no holes. Example, a notification that must be complete:
//     std::vector<std::string> missing;
//     std::string text = replaceMustache("{{task}} failed on {{host}}", vars, false, missing);
//     if (!missing.empty()) return refuse("no value for " + missing.front());
// With vars {"task": "nightly"}: text is "nightly failed on " and missing is {"host"}.
TELO_EXPORT std::string replaceMustache(const std::string &tmpl, VarsMapper mapper,
                                        std::vector<std::string> &missing);
TELO_EXPORT std::string replaceMustache(const std::string &tmpl,
                                        const std::map<std::string, std::string> &vars,
                                        std::vector<std::string> &missing);
TELO_EXPORT std::string replaceMustache(const std::string &tmpl, const Json::Value &vars,
                                        bool jsonStrings, std::vector<std::string> &missing);

}  // namespace Backup
}  // namespace TELO

#endif
