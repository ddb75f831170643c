#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/child.h"
#include "telo/platform.h"

TEST(PlatformProcess, ForkGivesTheChildZeroAndTheParentItsPid) {
    pid_t pid = TLIBCProcFork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(7);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(7, WEXITSTATUS(status));
}

TEST(PlatformProcess, ForkFailureIsRecorded) {
    EXPECT_CHILD_OK(
        [] {
            struct rlimit none = {0, 0};
            CHILD_CHECK_EQ(0, setrlimit(RLIMIT_NPROC, &none));
            CHILD_CHECK_EQ(-1, TLIBCProcFork());
            CHILD_CHECK_EQ(EAGAIN, errno);
            CHILD_CHECK_EQ(unsigned(TELO_ERR_SYSTEM), TLIBCErrGet());
            CHILD_CHECK_EQ(std::string("src/process.cpp"), std::string(TLIBCErrorGetFile()));
            CHILD_CHECK(TLIBCErrorGetLine() > 0);
            return std::string();
        },
        testsupport::ChildOptions{.dropPrivileges = true});
}
