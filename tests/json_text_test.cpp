#include "telobackup/json_text.h"

#include <gtest/gtest.h>

#include <thread>

using TELO::Backup::jsonFromString;
using TELO::Backup::jsonToString;

TEST(JsonText, WritesOneCompactLine) {
    Json::Value v;
    v["a"] = 1;
    v["b"].append("x");
    v["b"].append(Json::nullValue);
    v["c"]["d"] = false;
    std::string text = jsonToString(v);
    EXPECT_EQ("{\"a\":1,\"b\":[\"x\",null],\"c\":{\"d\":false}}", text);
    EXPECT_EQ(std::string::npos, text.find('\n'));
    EXPECT_EQ("\"s\"", jsonToString(Json::Value("s")));
    EXPECT_EQ("3", jsonToString(Json::Value(3)));
    EXPECT_EQ("null", jsonToString(Json::Value()));
}

TEST(JsonText, KeepsUtf8AndEscapesControls) {
    EXPECT_EQ("\"Zürich 東京\"", jsonToString(Json::Value("Zürich 東京")));
    EXPECT_EQ("\"a\\nb\\t\\\"\"", jsonToString(Json::Value("a\nb\t\"")));
}

TEST(JsonText, ParsesAnySingleValue) {
    struct Case {
        const char *text;
        bool ok;
    } cases[] = {
        {"1", true},    {"-3.5", true},  {"\"x\"", true},     {"true", true},
        {"null", true}, {"[1,2]", true}, {"{\"a\":1}", true}, {"  7  ", true},
        {"", false},    {"abc", false},  {"1 2", false},      {"{\"a\":1} x", false},
        {"[1,", false}, {"'x'", false},  {"1 // c", false},   {"{\"a\":}", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        Json::Value v;
        EXPECT_EQ(c.ok, jsonFromString(v, c.text));
    }
}

TEST(JsonText, FailedParseLeavesValueUnchanged) {
    Json::Value v("keep");
    EXPECT_FALSE(jsonFromString(v, "{broken"));
    EXPECT_EQ("keep", v.asString());
    EXPECT_TRUE(jsonFromString(v, "[\"ü\"]"));
    EXPECT_EQ("ü", v[0].asString());
}

TEST(JsonText, RoundTripsAcrossThreads) {
    Json::Value v;
    v["k"] = "Müller";
    v["n"] = Json::Int64(1) << 40;
    std::string text = jsonToString(v);
    bool ok[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            bool all = true;
            for (int i = 0; i < 200; ++i) {
                Json::Value back;
                all = all && jsonFromString(back, text) && back == v && jsonToString(back) == text;
            }
            ok[t] = all;
        });
    }
    for (auto &th : threads) th.join();
    for (bool b : ok) EXPECT_TRUE(b);
}
