#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "telo/platform.h"

// Without ACLs each call fails as unsupported; the code says it all, so there is no detail.
TEST(PlatformError, AclFunctionsOfAGenericServer) {
    errno = 0;
    EXPECT_EQ(-3,
              TELOACLCopy("/a", "/b") + TELOACLArchiveCopy("/a", "/b") + TELOACLResetInherit("/a"));
    EXPECT_EQ(ENOTSUP, errno);
    EXPECT_EQ(unsigned(TELO_ERR_NOT_SUPPORTED), TLIBCErrGet());
    EXPECT_STREQ("src/acl.cpp", TLIBCErrorGetFile());
    EXPECT_STREQ("", TLIBCErrorGetDetail());
}

TEST(PlatformError, TripleIsPerThreadAndKeptAcrossSuccess) {
    EXPECT_LT(TELOGetFSType("", 0), 0);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    int line = TLIBCErrorGetLine();
    EXPECT_STREQ("src/fs_type.cpp", TLIBCErrorGetFile());
    // A success does not clear the last error.
    EXPECT_GE(TELOGetFSType("/", 0), 0);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
    EXPECT_EQ(line, TLIBCErrorGetLine());
    unsigned int otherCode = 1234;
    std::thread([&] {
        otherCode = TLIBCErrGet();
        TELOACLCopy("/a", "/b");
    }).join();
    EXPECT_EQ(unsigned(TELO_ERR_NONE), otherCode);
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
}
