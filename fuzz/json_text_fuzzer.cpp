// JSON text on arbitrary bytes: a text that parses is written as one line that parses back to
// an equal value and is written again byte for byte; a text that does not parse leaves the
// value as it was. Nesting, huge numbers and invalid UTF-8 must not throw.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "telobackup/json_text.h"

using TELO::Backup::jsonFromString;
using TELO::Backup::jsonToString;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    Json::Value value("unchanged");
    if (!jsonFromString(value, text)) {
        check(value.isString() && value.asString() == "unchanged");
        return 0;
    }
    std::string written = jsonToString(value);
    check(written.find('\n') == std::string::npos);
    Json::Value back;
    check(jsonFromString(back, written));
    check(back == value);
    check(jsonToString(back) == written);
    return 0;
}
