// The load test starts and stops the transfer backend itself, so that it
// can compare the process's descriptors before the start and after the stop.
#include <gtest/gtest.h>

#include "support/log_capture.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    watchLogsForSecrets();
    return RUN_ALL_TESTS();
}
