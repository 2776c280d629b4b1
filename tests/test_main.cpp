// The main() of every test binary. Every log line is checked for secrets.
// Binaries built with WEBCLIENT_TEST_BACKEND start the transfer backend once
// (that costs 5 s) and stop it at the end, so that no transfer is still
// running while the process exits; the others manage the backend themselves.
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "webclient/webRequestcontroller.h"

namespace {

struct Backend : ::testing::Environment {
    void SetUp() override { WebRequestManager::getInstance()->initBackEnd(); }
    void TearDown() override { WebRequestManager::getInstance()->stopBackEnd(); }
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    watchLogsForSecrets();
#ifdef WEBCLIENT_TEST_BACKEND
    ::testing::AddGlobalTestEnvironment(new Backend());
#endif
    return RUN_ALL_TESTS();
}
