#include "telobackup/json_text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using TELO::Backup::jsonFromString;
using TELO::Backup::jsonToString;

TEST(JsonText, WritesOneCompactLineKeepingUtf8) {
    Json::Value v;
    v["a"] = 1;
    v["b"].append("x");
    v["b"].append(Json::nullValue);
    v["c"]["d"] = false;
    EXPECT_EQ("{\"a\":1,\"b\":[\"x\",null],\"c\":{\"d\":false}}", jsonToString(v));
    EXPECT_EQ("null", jsonToString(Json::Value()));
    EXPECT_EQ("\"Zürich 東京\"", jsonToString(Json::Value("Zürich 東京")));
    EXPECT_EQ("\"a\\nb\\t\\\"\"", jsonToString(Json::Value("a\nb\t\"")));
}

TEST(JsonText, ParsesExactlyOneValue) {
    // clang-format off
    const std::pair<const char *, bool> cases[] = {
        {"1", true}, {"-3.5", true}, {"\"x\"", true}, {"true", true}, {"null", true},
        {"[1,2]", true}, {"{\"a\":1}", true}, {"  7  ", true}, {"", false}, {"abc", false},
        {"1 2", false}, {"{\"a\":1} x", false}, {"[1,", false}, {"'x'", false},
        {"1 // c", false}, {"{\"a\":}", false},
    };
    // clang-format on
    for (const auto &c : cases) {
        Json::Value v("keep");
        EXPECT_EQ(c.second, jsonFromString(v, c.first)) << c.first;
        // A failed parse leaves the value as it was.
        if (!c.second) {
            EXPECT_EQ("keep", v.asString()) << c.first;
        }
    }
}

// Nesting is bounded: the reader's own limit fails the parse instead of throwing, and the
// reader stays usable afterwards.
TEST(JsonText, DeepNestingFailsWithoutThrowing) {
    auto nested = [](int depth, bool closed) {
        return std::string(depth, '[') + (closed ? std::string(depth, ']') : "");
    };
    Json::Value v("keep");
    EXPECT_TRUE(jsonFromString(v, nested(1000, true)));
    for (const std::string &text : {nested(1001, true), nested(1001, false), nested(100000, false),
                                    "{\"a\":" + nested(1001, true) + "}"}) {
        v = "keep";
        EXPECT_FALSE(jsonFromString(v, text)) << text.size();
        EXPECT_EQ("keep", v.asString());
    }
    EXPECT_TRUE(jsonFromString(v, "[1]"));
    EXPECT_EQ(1, v[0].asInt());
}

// Each thread has its own writer and reader.
TEST(JsonText, RoundTripsAcrossThreads) {
    Json::Value v;
    v["k"] = "Müller";
    v["n"] = Json::Int64(1) << 40;
    const std::string text = jsonToString(v);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                Json::Value back;
                if (!jsonFromString(back, text) || back != v || jsonToString(back) != text) ++wrong;
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(0, wrong);
}
