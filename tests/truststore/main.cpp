#include <gtest/gtest.h>

#include "support/log_capture.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    watchLogsForSecrets();
    return RUN_ALL_TESTS();
}
