// Entry point of every test binary: a helper mode when asked for one, else the tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "support/process.h"

int main(int argc, char **argv) {
    int exitCode = 0;
    if (testsupport::runHelperIfAsked(argc, argv, exitCode)) {
        // A helper ends without the test binary's exit-time work (static destructors, the
        // sanitizers' leak scan of a large process): tests give some helpers only half a second
        // to end, which that scan can outlast on a loaded machine.
        std::fflush(nullptr);
        _exit(exitCode);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
