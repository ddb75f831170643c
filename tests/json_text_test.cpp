// Pinned texts and the reader's limits; the fuzzer checks round trips on arbitrary bytes.
#include "telobackup/json_text.h"

#include <gtest/gtest.h>

using TELO::Backup::jsonFromString;
using TELO::Backup::jsonToString;

TEST(JsonText, WritesUtf8AsItIs) {
    EXPECT_EQ("\"Zürich 東京\\n\\t\\\"\"", jsonToString(Json::Value("Zürich 東京\n\t\"")));
}

// Exactly one value parses; a failed parse leaves the value as it was. Nesting is bounded: the
// reader's own limit fails the parse instead of throwing.
TEST(JsonText, ParsesExactlyOneBoundedValue) {
    auto nested = [](int depth, bool closed) {
        return std::string(depth, '[') + (closed ? std::string(depth, ']') : "");
    };
    // clang-format off
    const std::pair<std::string, bool> cases[] = {
        {"  {\"a\":1}  ", true}, {"1 2", false}, {"1 // c", false}, {nested(1000, true), true},
        {nested(1001, true), false}, {nested(100000, false), false},
        {"[1]", true},  // the reader stays usable after hitting its limit
    };
    // clang-format on
    for (const auto &c : cases) {
        Json::Value v("keep");
        EXPECT_EQ(c.second, jsonFromString(v, c.first)) << c.first.substr(0, 20);
        if (!c.second) {
            EXPECT_EQ("keep", v.asString()) << c.first.substr(0, 20);
        }
    }
}
