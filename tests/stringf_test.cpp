#include "telobackup/stringf.h"

#include <gtest/gtest.h>

#include <thread>

using TELO::Backup::stringf;

TEST(Stringf, FormatsLikePrintf) {
    EXPECT_EQ("a=1 b=x 2.50", stringf("a=%d b=%s %.2f", 1, "x", 2.5));
    EXPECT_EQ("", stringf("%s", ""));
    EXPECT_EQ("100%", stringf("%d%%", 100));
}

TEST(Stringf, EmptyFormatGivesEmptyString) {
    const char *empty = "";
    EXPECT_EQ("", stringf(empty, 0));
}

// 127 bytes fit the first pass; 128 and more take the second pass and must not be cut.
TEST(Stringf, ResultsAroundTheFirstBufferSizeComeOutWhole) {
    for (size_t length : {126u, 127u, 128u, 129u, 255u, 256u}) {
        SCOPED_TRACE(length);
        std::string expected(length, 'x');
        EXPECT_EQ(expected, stringf("%s", expected.c_str()));
        // The same length reached through a number at the end, across the boundary.
        std::string prefix(length - 3, 'y');
        EXPECT_EQ(prefix + "123", stringf("%s%d", prefix.c_str(), 123));
    }
}

TEST(Stringf, LongArgumentIsKeptWhole) {
    std::string big(10000, 'z');
    big[5000] = 'A';
    std::string result = stringf("<%s>", big.c_str());
    EXPECT_EQ("<" + big + ">", result);
    EXPECT_EQ(10002u, result.size());
}

TEST(Stringf, EmbeddedNulFromFormatIsKept) {
    std::string result = stringf("a%cb", '\0');
    EXPECT_EQ(std::string("a\0b", 3), result);
}

// A wide-character conversion that cannot be represented makes vsnprintf fail.
TEST(Stringf, RejectedFormatGivesEmptyString) {
    const wchar_t bad[] = {static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ("", stringf("x%lsy", bad));
}

// Long texts leave the thread a larger first-pass buffer; later texts of every size must still
// come out whole and exact, in this thread and in others.
TEST(Stringf, SizesInAnyOrderComeOutExact) {
    auto checkSizes = [] {
        bool ok = true;
        for (size_t length :
             {300u, 150u, 5000u, 100u, 4999u, 5001u, 70000u, 127u, 128u, 65535u, 20u}) {
            std::string text(length, 'a');
            text[length / 2] = 'M';
            ok = ok && TELO::Backup::stringf("%s", text.c_str()) == text;
            ok = ok && TELO::Backup::stringf("<%s|%d>", text.c_str(), 7) == "<" + text + "|7>";
        }
        return ok;
    };
    EXPECT_TRUE(checkSizes());
    bool threadOk = false;
    std::thread([&] { threadOk = checkSizes(); }).join();
    EXPECT_TRUE(threadOk);
}
