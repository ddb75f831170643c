// Templates on arbitrary bytes, all three forms: each fills exactly as a second formulation of
// the scan (the innermost opener before the first closer found by searching backwards), asks
// for the same names in the same order, and the JSON form renders members as documented.
// Input: the template, a NUL byte, then the variables as JSON text (an object, or anything).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "telobackup/json_text.h"
#include "telobackup/mustache.h"

using TELO::Backup::jsonFromString;
using TELO::Backup::jsonToString;
using TELO::Backup::replaceMustache;
using Mapper = std::function<bool(const std::string &, std::string &)>;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

std::string reference(const std::string &tmpl, const Mapper &mapper) {
    std::string out;
    size_t from = 0;
    for (;;) {
        size_t open = tmpl.find("{{", from);
        if (open == std::string::npos) break;
        size_t close = tmpl.find("}}", open + 2);
        if (close == std::string::npos) break;
        size_t inner = tmpl.rfind("{{", close - 1);
        out.append(tmpl, from, inner - from);
        std::string value;
        if (mapper(tmpl.substr(inner + 2, close - inner - 2), value)) out += value;
        from = close + 2;
    }
    return out + tmpl.substr(from);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    size_t cut = input.find('\0');
    std::string tmpl = input.substr(0, cut);
    std::string varsText = cut == std::string::npos ? std::string() : input.substr(cut + 1);

    // The function form: same result, same names asked in the same order. Every third name
    // is unknown; the others fill a value that holds tags itself, which is never rescanned.
    std::vector<std::string> asked, askedByReference;
    auto recorder = [](std::vector<std::string> &names) {
        return [&names](const std::string &name, std::string &out) {
            names.push_back(name);
            out = "{{" + name + "}}";
            return names.size() % 3 != 0;
        };
    };
    std::string filled = replaceMustache(tmpl, Mapper(recorder(asked)));
    check(filled == reference(tmpl, recorder(askedByReference)));
    check(asked == askedByReference);
    if (tmpl.find("{{") == std::string::npos) check(filled == tmpl && asked.empty());

    Json::Value vars;
    if (!jsonFromString(vars, varsText)) vars = Json::Value(varsText);
    std::map<std::string, std::string> strings;
    if (vars.isObject()) {
        for (auto it = vars.begin(); it != vars.end(); ++it) {
            if (it->isString()) strings[it.name()] = it->asString();
        }
    }
    auto fromMap = [&strings](const std::string &name, std::string &out) {
        auto it = strings.find(name);
        if (it == strings.end()) return false;
        out = it->second;
        return true;
    };
    check(replaceMustache(tmpl, strings) == reference(tmpl, fromMap));

    for (bool jsonStrings : {false, true}) {
        auto fromJson = [&vars, jsonStrings](const std::string &name, std::string &out) {
            if (!vars.isObject() || !vars.isMember(name)) return false;
            const Json::Value &member = vars[name];
            if (member.isNull()) {
                out.clear();
            } else if (member.isString() && !jsonStrings) {
                out = member.asString();
            } else {
                out = jsonToString(member);
            }
            return true;
        };
        check(replaceMustache(tmpl, vars, jsonStrings) == reference(tmpl, fromJson));
    }
    return 0;
}
