#include <gtest/gtest.h>

#include "support/log_capture.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    watchLogsForSecrets();
    // Death tests re-run the binary: a fresh process whose first popen3
    // call can be observed.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
