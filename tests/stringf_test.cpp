#include "telobackup/stringf.h"

#include <gtest/gtest.h>

#include <thread>

using TELO::Backup::stringf;

namespace {

// Formats twice from one va_list: a vstringf that consumed `ap` would print garbage the second
// time, and a long text takes the second pass, which must also work on its own copy.
std::string twice(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string twice(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string first = TELO::Backup::vstringf(format, ap);
    std::string second = TELO::Backup::vstringf(format, ap);
    va_end(ap);
    return first + "|" + second;
}

}  // namespace

TEST(Stringf, FormatsLikePrintf) {
    EXPECT_EQ("a=1 b=x 2.50 100%", stringf("a=%d b=%s %.2f %d%%", 1, "x", 2.5, 100));
    EXPECT_EQ(std::string("a\0b", 3), stringf("a%cb", '\0'));
    // A wide-character conversion that cannot be represented makes vsnprintf fail.
    const wchar_t bad[] = {static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ("", stringf("x%lsy", bad));
    EXPECT_EQ("7 x|7 x", twice("%d %s", 7, "x"));
    std::string longText(300, 'L');
    EXPECT_EQ(longText + "9|" + longText + "9", twice("%s%d", longText.c_str(), 9));
}

// Results of 127 bytes fit the first pass; 128 and more take the second and must not be cut. Long
// texts leave the thread a larger first-pass buffer: later texts of every size must still come out
// whole, in this thread and in others.
TEST(Stringf, EverySizeInAnyOrderComesOutWhole) {
    auto wrongSizes = [] {
        std::string wrong;
        for (size_t length : {123u, 124u, 10000u, 150u, 70000u, 123u, 124u, 20u}) {
            std::string text(length, 'a');
            text[length / 2] = 'M';
            if (stringf("<%s|%d>", text.c_str(), 7) != "<" + text + "|7>") {
                wrong += std::to_string(length) + " ";
            }
        }
        return wrong;
    };
    EXPECT_EQ("", wrongSizes());
    std::string inThread = "not run";
    std::thread([&] { inThread = wrongSizes(); }).join();
    EXPECT_EQ("", inThread);
}
