// A GoogleTest environment that starts the transfer backend once for the
// whole test binary (starting costs 5 s) and stops it at the end, so that
// no transfer is still running while the process exits.
#pragma once

#include <gtest/gtest.h>

class BackendEnvironment : public ::testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;
};

// Registers BackendEnvironment and runs all tests; use from a test main().
int runTestsWithBackend(int argc, char** argv);
