#include <gtest/gtest.h>
#include <sys/resource.h>

#include "support/child.h"
#include "telo/platform.h"

TEST(PlatformProcess, ForkFailureIsRecorded) {
    EXPECT_CHILD_OK(testsupport::ChildOptions{.dropPrivileges = true}, [] {
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        CHILD_CHECK_EQ(-1, TLIBCProcFork());
        CHILD_CHECK_EQ(EAGAIN, errno);
        CHILD_CHECK_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
    });
}
