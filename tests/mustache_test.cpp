#include "telobackup/mustache.h"

#include <gtest/gtest.h>

#include <functional>

using TELO::Backup::replaceMustache;

TEST(Mustache, MapForm) {
    std::map<std::string, std::string> vars{{"name", "Bob"},  {"", "EMPTY"}, {" x ", "SPACED"},
                                            {"y", "Y"},       {"a", "A"},    {"b", "B"},
                                            {"loop", "{{y}}"}};
    // clang-format off
    const char *cases[][2] = {
        // Known and unknown names; names are taken as written, empty and with blanks.
        {"Hello {{name}}!", "Hello Bob!"}, {"Hello {{nobody}}!", "Hello !"},
        {"{{a}}{{b}}{{a}}", "ABA"}, {"{{}}", "EMPTY"}, {"{{ x }}", "SPACED"}, {"{{x}}", ""},
        {"", ""}, {"plain", "plain"},
        // Unterminated openers and lone closers are text.
        {"a {{b", "a {{b"}, {"a }} b", "a }} b"}, {"}}{{a}}", "}}A"},
        {"{{a}} and {{b", "A and {{b"},
        // The innermost opener before a closer wins; inserted text is never scanned again.
        {"{{a {{b}}", "{{a B"}, {"{{{y}}}", "{Y}"}, {"{{{{a}}}}", "{{A}}"},
        {"<{{loop}}>", "<{{y}}>"},
    };
    // clang-format on
    for (const auto &c : cases) EXPECT_EQ(c[1], replaceMustache(c[0], vars)) << c[0];
}

TEST(Mustache, MapperIsAskedForEveryTagInOrder) {
    std::vector<std::string> asked;
    auto mapper = [&](const std::string &name, std::string &out) {
        asked.push_back(name);
        out = "[" + name + "]";
        return name != "skip";
    };
    EXPECT_EQ("[a]-[b]-", replaceMustache("{{a}}-{{b}}-{{skip}}", mapper));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "skip"}), asked);
    // An empty mapper throws only at the first tag.
    std::function<bool(const std::string &, std::string &)> empty;
    EXPECT_EQ("no tags {{", replaceMustache("no tags {{", empty));
    EXPECT_THROW(replaceMustache("x {{a}}", empty), std::bad_function_call);
}

TEST(Mustache, JsonForm) {
    Json::Value vars;
    vars["n"] = 5;
    vars["s"] = "x";
    vars["z"] = Json::nullValue;
    vars["b"] = true;
    vars["list"].append(1);
    vars["list"].append("two");
    vars["obj"]["k"] = "v";
    vars["quote"] = "a\"b";
    // Each row: template, plain, with jsonStrings.
    // clang-format off
    const char *cases[][3] = {
        {"{{n}}", "5", "5"}, {"{{s}}", "x", "\"x\""}, {"{{quote}}", "a\"b", "\"a\\\"b\""},
        {"{{z}}", "", ""}, {"{{b}}", "true", "true"}, {"{{list}}", "[1,\"two\"]", "[1,\"two\"]"},
        {"{{obj}}", "{\"k\":\"v\"}", "{\"k\":\"v\"}"}, {"<{{missing}}>", "<>", "<>"},
    };
    // clang-format on
    for (const auto &c : cases) {
        EXPECT_EQ(c[1], replaceMustache(c[0], vars, false)) << c[0];
        EXPECT_EQ(c[2], replaceMustache(c[0], vars, true)) << c[0];
    }
    // Variables that are not an object name nothing.
    Json::Value array(Json::arrayValue);
    array.append(1);
    EXPECT_EQ("a  b", replaceMustache("a {{0}} b", array, false));
    EXPECT_EQ("a  b", replaceMustache("a {{x}} b", Json::Value(), false));
}

// A member nested deeper than any text could be parsed is still written out whole.
TEST(Mustache, JsonFormWritesDeepMembers) {
    Json::Value deep(Json::arrayValue);
    for (int i = 1; i < 1001; ++i) {
        Json::Value outer(Json::arrayValue);
        outer.append(deep);
        deep.swap(outer);
    }
    Json::Value vars;
    vars["e"] = deep;
    std::string expected = "<" + std::string(1001, '[') + std::string(1001, ']') + ">";
    EXPECT_EQ(expected, replaceMustache("<{{e}}>", vars, false));
    EXPECT_EQ(expected, replaceMustache("<{{e}}>", vars, true));
}

// The strict forms fill as the plain ones and name each tag without a value once, in order.
TEST(Mustache, StrictFormsNameTheHoles) {
    Json::Value vars;
    vars["task"] = "nightly";
    vars["z"] = Json::nullValue;
    vars["n"] = 3;
    std::vector<std::string> missing{"stale"};
    const std::string tmpl = "{{host}}: {{task}} {{z}}{{n}} {{ task }} {{host}} {{}}{{a {{b";
    EXPECT_EQ(replaceMustache(tmpl, vars, true), replaceMustache(tmpl, vars, true, missing));
    EXPECT_EQ((std::vector<std::string>{"host", " task ", ""}), missing);
    EXPECT_EQ("\"nightly\"", replaceMustache("{{task}}", vars, true, missing));
    EXPECT_TRUE(missing.empty());
    // Variables that are not an object leave every tag missing.
    replaceMustache("{{0}}", Json::Value(Json::arrayValue), false, missing);
    EXPECT_EQ((std::vector<std::string>{"0"}), missing);

    std::map<std::string, std::string> map{{"a", "A"}};
    EXPECT_EQ("A-", replaceMustache("{{a}}-{{b}}", map, missing));
    EXPECT_EQ((std::vector<std::string>{"b"}), missing);

    auto mapper = [](const std::string &name, std::string &out) {
        out = name;
        return name != "no";
    };
    EXPECT_EQ("yes,,", replaceMustache("{{yes}},{{no}},{{no}}", mapper, missing));
    EXPECT_EQ((std::vector<std::string>{"no"}), missing);
    std::function<bool(const std::string &, std::string &)> empty;
    EXPECT_THROW(replaceMustache("{{a}}", empty, missing), std::bad_function_call);
}
