// Pinned results of the scan and the value rendering; the fuzzer compares every form with a
// second formulation of the scan on arbitrary templates.
#include "telobackup/mustache.h"

#include <gtest/gtest.h>

#include <functional>

using TELO::Backup::replaceMustache;
using Names = std::vector<std::string>;
using Mapper = std::function<bool(const std::string &, std::string &)>;

// Names are taken as written and unknown ones vanish; unterminated openers and lone closers are
// text; the innermost opener before a closer wins; inserted text is never scanned again.
TEST(Mustache, MapForm) {
    std::map<std::string, std::string> vars{
        {"name", "Bob"}, {"", "EMPTY"}, {" x ", "SPACED"}, {"y", "Y"}, {"loop", "{{y}}"}};
    // clang-format off
    const char *cases[][2] = {
        {"Hello {{name}}{{nobody}}!", "Hello Bob!"}, {"{{}}{{ x }}{{x}}", "EMPTYSPACED"},
        {"}}{{y}} and {{y", "}}Y and {{y"}, {"{{{{y}}}}", "{{Y}}"}, {"<{{loop}}>", "<{{y}}>"},
    };
    // clang-format on
    for (const auto &c : cases) EXPECT_EQ(c[1], replaceMustache(c[0], vars)) << c[0];
}

// The mapper is asked for every tag in order; an empty one throws only at the first tag.
TEST(Mustache, MapperForm) {
    Names asked;
    auto mapper = [&](const std::string &name, std::string &out) {
        asked.push_back(name);
        out = "[" + name + "]";
        return name != "skip";
    };
    EXPECT_EQ("[a]-[b]-", replaceMustache("{{a}}-{{b}}-{{skip}}", mapper));
    EXPECT_EQ((Names{"a", "b", "skip"}), asked);
    EXPECT_EQ("no tags {{", replaceMustache("no tags {{", Mapper()));
    EXPECT_THROW(replaceMustache("x {{a}}", Mapper()), std::bad_function_call);
}

// Strings are quoted only as JSON strings, other values written as JSON, null as nothing; the
// strict form names each tag without a value once, in order.
TEST(Mustache, JsonForms) {
    Json::Value vars;
    vars["quote"] = "a\"b";
    vars["z"] = Json::nullValue;
    vars["list"].append(1);
    EXPECT_EQ("a\"b|[1]|", replaceMustache("{{quote}}|{{list}}|{{z}}{{no}}", vars, false));
    EXPECT_EQ("\"a\\\"b\"|[1]", replaceMustache("{{quote}}|{{list}}", vars, true));
    EXPECT_EQ("a  b", replaceMustache("a {{0}} b", Json::Value(Json::arrayValue), false));
    Names missing{"stale"};
    const std::string tmpl = "{{host}}: {{quote}} {{z}} {{ quote }} {{host}} {{}}{{a {{b";
    EXPECT_EQ(replaceMustache(tmpl, vars, true), replaceMustache(tmpl, vars, true, missing));
    EXPECT_EQ((Names{"host", " quote ", ""}), missing);
    std::map<std::string, std::string> map{{"a", "A"}};
    EXPECT_EQ("A-", replaceMustache("{{a}}-{{b}}", map, missing));
    EXPECT_EQ((Names{"b"}), missing);

    // A member nested deeper than any text could be parsed is still written out whole.
    Json::Value deep(Json::arrayValue);
    for (int i = 1; i < 1001; ++i) {
        Json::Value outer(Json::arrayValue);
        outer.append(deep);
        deep.swap(outer);
    }
    vars["e"] = deep;
    EXPECT_EQ("<" + std::string(1001, '[') + std::string(1001, ']') + ">",
              replaceMustache("<{{e}}>", vars, true));
}
