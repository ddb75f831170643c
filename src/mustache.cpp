#include "telobackup/mustache.h"

#include <algorithm>

#include "telobackup/json_text.h"

namespace TELO {
namespace Backup {

namespace {

class VarsMapperMapString {
  public:
    explicit VarsMapperMapString(const std::map<std::string, std::string> &vars) : vars_(vars) {}
    bool operator()(const std::string &name, std::string &out) const {
        auto it = vars_.find(name);
        if (it == vars_.end()) return false;
        out = it->second;
        return true;
    }

  private:
    const std::map<std::string, std::string> &vars_;
};

class VarsMapperJson {
  public:
    VarsMapperJson(const Json::Value &vars, bool jsonStrings)
        : vars_(vars), jsonStrings_(jsonStrings) {}
    bool operator()(const std::string &name, std::string &out) const {
        if (!vars_.isObject() || !vars_.isMember(name)) return false;
        const Json::Value &member = vars_[name];
        if (member.isNull()) {
            out.clear();
        } else if (member.isString() && !jsonStrings_) {
            out = member.asString();
        } else {
            out = jsonToString(member);
        }
        return true;
    }

  private:
    const Json::Value &vars_;
    bool jsonStrings_;
};

}  // namespace

std::string replaceMustache(const std::string &tmpl, VarsMapper mapper) {
    static const std::string kOpen = "{{";
    static const std::string kClose = "}}";
    std::string result;
    size_t copyFrom = 0;
    size_t open = tmpl.find(kOpen);
    size_t next = open == std::string::npos ? open : tmpl.find(kOpen, open + 1);
    size_t close = open == std::string::npos ? open : tmpl.find(kClose, open + 2);
    while (open != std::string::npos && close != std::string::npos) {
        // The innermost opener before the closer wins.
        while (next != std::string::npos && next < close) {
            open = next;
            next = tmpl.find(kOpen, next + 1);
        }
        result.append(tmpl, copyFrom, open - copyFrom);
        std::string value;
        if (mapper(tmpl.substr(open + 2, close - open - 2), value)) result += value;
        copyFrom = close + 2;
        open = tmpl.find(kOpen, copyFrom);
        if (open == std::string::npos) break;
        next = tmpl.find(kOpen, open + 1);
        close = tmpl.find(kClose, open + 2);
    }
    result.append(tmpl, copyFrom, std::string::npos);
    return result;
}

std::string replaceMustache(const std::string &tmpl,
                            const std::map<std::string, std::string> &vars) {
    return replaceMustache(tmpl, VarsMapper(VarsMapperMapString(vars)));
}

std::string replaceMustache(const std::string &tmpl, const Json::Value &vars, bool jsonStrings) {
    return replaceMustache(tmpl, VarsMapper(VarsMapperJson(vars, jsonStrings)));
}

std::string replaceMustache(const std::string &tmpl, VarsMapper mapper,
                            std::vector<std::string> &missing) {
    missing.clear();
    // An empty mapper still throws at the first tag, as in the plain form.
    auto recording = [&mapper, &missing](const std::string &name, std::string &out) {
        if (mapper(name, out)) return true;
        if (std::find(missing.begin(), missing.end(), name) == missing.end()) {
            missing.push_back(name);
        }
        return false;
    };
    return replaceMustache(tmpl, VarsMapper(recording));
}

std::string replaceMustache(const std::string &tmpl, const std::map<std::string, std::string> &vars,
                            std::vector<std::string> &missing) {
    return replaceMustache(tmpl, VarsMapper(VarsMapperMapString(vars)), missing);
}

std::string replaceMustache(const std::string &tmpl, const Json::Value &vars, bool jsonStrings,
                            std::vector<std::string> &missing) {
    return replaceMustache(tmpl, VarsMapper(VarsMapperJson(vars, jsonStrings)), missing);
}

}  // namespace Backup
}  // namespace TELO
