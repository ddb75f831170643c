// What the fuzzer does not compare: the names reported missing, and values nested deeper than
// any text could be parsed. The fuzzer checks every form's filling against a second formulation
// of the scan.
#include "telobackup/mustache.h"

#include <gtest/gtest.h>

using TELO::Backup::replaceMustache;
using Names = std::vector<std::string>;

// The strict forms name each tag without a value once, in order, and fill as the plain form.
TEST(Mustache, MissingNames) {
    Json::Value vars;
    vars["quote"] = "a\"b";
    vars["z"] = Json::nullValue;
    Names missing{"stale"};
    const std::string tmpl = "{{host}}: {{quote}} {{z}} {{ quote }} {{host}} {{}}{{a {{b";
    EXPECT_EQ(replaceMustache(tmpl, vars, true), replaceMustache(tmpl, vars, true, missing));
    EXPECT_EQ((Names{"host", " quote ", ""}), missing);
    std::map<std::string, std::string> map{{"a", "A"}};
    EXPECT_EQ("A-", replaceMustache("{{a}}-{{b}}", map, missing));
    EXPECT_EQ((Names{"b"}), missing);
}

// A member nested deeper than any text could be parsed is still written out whole.
TEST(Mustache, DeeplyNestedValue) {
    Json::Value deep(Json::arrayValue);
    for (int i = 1; i < 1001; ++i) {
        Json::Value outer(Json::arrayValue);
        outer.append(deep);
        deep.swap(outer);
    }
    Json::Value vars;
    vars["e"] = deep;
    EXPECT_EQ("<" + std::string(1001, '[') + std::string(1001, ']') + ">",
              replaceMustache("<{{e}}>", vars, true));
}
