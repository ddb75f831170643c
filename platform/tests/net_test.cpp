// Address literals and the lookup's parameters; names from a hosts file are looked up in
// util_over_platform_test, which has the private resolver fixture.
#include <gtest/gtest.h>

#include "telo/platform.h"

TEST(NetLookup, LiteralsAndBadParameters) {
    EXPECT_EQ(1, BlTLIBIsIpAddr("10.0.0.1"));
    EXPECT_EQ(2, BlTLIBIsIpAddr("::ffff:1.2.3.4"));
    EXPECT_EQ(0, BlTLIBIsIpAddr("010.0.0.1"));
    EXPECT_EQ(1, BlTLIBIsv6IpAddrValid("::1"));
    EXPECT_EQ(0, BlTLIBIsv6IpAddrValid("10.0.0.1"));
    char entries[1][TELO_IP_TEXT_SIZE];
    EXPECT_EQ(-1, TELONetLookupIP("127.0.0.1", entries, 0, 0));
    EXPECT_EQ(unsigned(TELO_ERR_INVALID_PARAM), TLIBCErrGet());
}
