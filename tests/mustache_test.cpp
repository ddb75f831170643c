#include "telobackup/mustache.h"

#include <gtest/gtest.h>

#include <functional>

using TELO::Backup::replaceMustache;

namespace {

void checkOne(const std::string &tmpl, const std::map<std::string, std::string> &vars,
              const std::string &expected) {
    SCOPED_TRACE("template: " + tmpl);
    EXPECT_EQ(expected, replaceMustache(tmpl, vars));
}

}  // namespace

TEST(Mustache, MapForm) {
    std::map<std::string, std::string> vars{{"name", "Bob"},  {"", "EMPTY"}, {" x ", "SPACED"},
                                            {"y", "Y"},       {"a", "A"},    {"b", "B"},
                                            {"loop", "{{y}}"}};
    // Known and unknown names.
    checkOne("Hello {{name}}!", vars, "Hello Bob!");
    checkOne("Hello {{nobody}}!", vars, "Hello !");
    checkOne("{{a}}{{b}}{{a}}", vars, "ABA");
    // Names are taken as written: empty, blanks kept.
    checkOne("{{}}", vars, "EMPTY");
    checkOne("{{ x }}", vars, "SPACED");
    checkOne("{{x}}", vars, "");
    // Unterminated openers and lone closers are text.
    checkOne("a {{b", vars, "a {{b");
    checkOne("a }} b", vars, "a }} b");
    checkOne("}}{{a}}", vars, "}}A");
    checkOne("{{a}} and {{b", vars, "A and {{b");
    // The innermost opener before a closer wins.
    checkOne("{{a {{b}}", vars, "{{a B");
    checkOne("{{{y}}}", vars, "{Y}");
    checkOne("{{{{a}}}}", vars, "{{A}}");
    // Inserted text is never scanned again.
    checkOne("<{{loop}}>", vars, "<{{y}}>");
    // No tags at all.
    checkOne("", vars, "");
    checkOne("plain", vars, "plain");
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
}

TEST(Mustache, EmptyMapperThrowsOnlyAtTheFirstTag) {
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

    EXPECT_EQ("5", replaceMustache("{{n}}", vars, false));
    EXPECT_EQ("x", replaceMustache("{{s}}", vars, false));
    EXPECT_EQ("\"x\"", replaceMustache("{{s}}", vars, true));
    EXPECT_EQ("\"a\\\"b\"", replaceMustache("{{quote}}", vars, true));
    EXPECT_EQ("a\"b", replaceMustache("{{quote}}", vars, false));
    EXPECT_EQ("", replaceMustache("{{z}}", vars, false));
    EXPECT_EQ("", replaceMustache("{{z}}", vars, true));
    EXPECT_EQ("true", replaceMustache("{{b}}", vars, false));
    EXPECT_EQ("[1,\"two\"]", replaceMustache("{{list}}", vars, false));
    EXPECT_EQ("{\"k\":\"v\"}", replaceMustache("{{obj}}", vars, false));
    EXPECT_EQ("<>", replaceMustache("<{{missing}}>", vars, false));
}

TEST(Mustache, JsonFormWithNonObjectVariablesFindsNothing) {
    Json::Value array(Json::arrayValue);
    array.append(1);
    EXPECT_EQ("a  b", replaceMustache("a {{0}} b", array, false));
    EXPECT_EQ("a  b", replaceMustache("a {{x}} b", Json::Value(), false));
}
