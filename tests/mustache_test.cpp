// Pinned results of the scan and the value rendering; the fuzzer compares every form with a
// second formulation of the scan on arbitrary templates.
#include "telobackup/mustache.h"

#include <gtest/gtest.h>

#include <functional>

using TELO::Backup::replaceMustache;
using Names = std::vector<std::string>;
using Mapper = std::function<bool(const std::string &, std::string &)>;

TEST(Mustache, MapForm) {
    std::map<std::string, std::string> vars{
        {"name", "Bob"}, {"", "EMPTY"}, {" x ", "SPACED"}, {"y", "Y"}, {"loop", "{{y}}"}};
    // clang-format off
    const char *cases[][2] = {
        // Names are taken as written; unknown ones vanish.
        {"Hello {{name}}{{nobody}}!", "Hello Bob!"}, {"{{}}{{ x }}{{x}}", "EMPTYSPACED"},
        // Unterminated openers and lone closers are text; the innermost opener before a closer
        // wins; inserted text is never scanned again.
        {"}}{{y}} and {{y", "}}Y and {{y"}, {"{{a {{y}}", "{{a Y"}, {"{{{{y}}}}", "{{Y}}"},
        {"<{{loop}}>", "<{{y}}>"},
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

TEST(Mustache, JsonForm) {
    Json::Value vars;
    vars["s"] = "x";
    vars["z"] = Json::nullValue;
    vars["list"].append(1);
    vars["list"].append("two");
    vars["quote"] = "a\"b";
    // Each row: template, plain, with jsonStrings.
    // clang-format off
    const char *cases[][3] = {
        {"{{s}}", "x", "\"x\""}, {"{{quote}}", "a\"b", "\"a\\\"b\""}, {"<{{z}}{{missing}}>", "<>", "<>"},
        {"{{list}}", "[1,\"two\"]", "[1,\"two\"]"},
    };
    // clang-format on
    for (const auto &c : cases) {
        EXPECT_EQ(c[1], replaceMustache(c[0], vars, false)) << c[0];
        EXPECT_EQ(c[2], replaceMustache(c[0], vars, true)) << c[0];
    }
    // Variables that are not an object name nothing.
    EXPECT_EQ("a  b", replaceMustache("a {{0}} b", Json::Value(Json::arrayValue), false));

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

// The strict forms fill as the plain ones and name each tag without a value once, in order.
TEST(Mustache, StrictFormsNameTheHoles) {
    Json::Value vars;
    vars["task"] = "nightly";
    vars["z"] = Json::nullValue;
    Names missing{"stale"};
    const std::string tmpl = "{{host}}: {{task}} {{z}} {{ task }} {{host}} {{}}{{a {{b";
    EXPECT_EQ(replaceMustache(tmpl, vars, true), replaceMustache(tmpl, vars, true, missing));
    EXPECT_EQ((Names{"host", " task ", ""}), missing);
    EXPECT_EQ("\"nightly\"", replaceMustache("{{task}}", vars, true, missing));
    EXPECT_TRUE(missing.empty());
    replaceMustache("{{0}}", Json::Value(Json::arrayValue), false, missing);
    EXPECT_EQ((Names{"0"}), missing);

    std::map<std::string, std::string> map{{"a", "A"}};
    EXPECT_EQ("A-", replaceMustache("{{a}}-{{b}}", map, missing));
    EXPECT_EQ((Names{"b"}), missing);
    auto mapper = [](const std::string &name, std::string &out) {
        out = name;
        return name != "no";
    };
    EXPECT_EQ("yes,,", replaceMustache("{{yes}},{{no}},{{no}}", mapper, missing));
    EXPECT_EQ((Names{"no"}), missing);
    EXPECT_THROW(replaceMustache("{{a}}", Mapper(), missing), std::bad_function_call);
}
