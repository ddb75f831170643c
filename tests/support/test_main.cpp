// Entry point of every test binary: a helper mode when asked for one, else the tests.
#include <gtest/gtest.h>

#include "support/process.h"

int main(int argc, char **argv) {
    int exitCode = 0;
    if (testsupport::runHelperIfAsked(argc, argv, exitCode)) return exitCode;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
