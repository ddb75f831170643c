// One-line JSON text of a Json::Value and back.
//
// Every call is synchronous on the caller's thread and takes no lock; the writer and reader are
// built once per thread.
#ifndef TELOBACKUP_JSON_TEXT_H
#define TELOBACKUP_JSON_TEXT_H

#include <json/value.h>

#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

// The value as compact JSON text on one line, without a trailing newline; UTF-8 in strings is
// kept as is (not escaped to \u). Example: {"a":[1,"\u00fc"]} prints as {"a":[1,"ü"]}.
// Never fails; throws std::bad_alloc on allocation failure.
TELO_EXPORT std::string jsonToString(const Json::Value &value);

// Parses `text` as exactly one JSON value of any type (an object, array, string, number,
// boolean or null; surrounding blanks allowed, comments and trailing text are not) into
// `value`. Returns true on success; on failure returns false and leaves `value` unchanged.
// A text nested more than 1,000 levels deep does not parse. Never throws but std::bad_alloc.
// Nothing is logged.
TELO_EXPORT bool jsonFromString(Json::Value &value, const std::string &text);

}  // namespace Backup
}  // namespace TELO

#endif
