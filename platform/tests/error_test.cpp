#include <gtest/gtest.h>

#include <thread>

#include "telo/platform.h"

TEST(PlatformError, TripleIsPerThreadAndKeptAcrossSuccess) {
    EXPECT_LT(TELOGetFSType("", 0), 0);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    // A success does not clear the last error.
    EXPECT_GE(TELOGetFSType("/", 0), 0);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    unsigned int otherCode = 1234;
    std::thread([&] {
        otherCode = TLIBCErrGet();
        TELOACLCopy("/a", "/b");
    }).join();
    EXPECT_EQ(unsigned(TELO_ERR_NONE), otherCode);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
}
