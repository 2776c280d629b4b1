#include "support/backend_environment.h"

#include "support/log_capture.h"
#include "webclient/webRequestcontroller.h"

void BackendEnvironment::SetUp() { WebRequestManager::getInstance()->initBackEnd(); }

void BackendEnvironment::TearDown() { WebRequestManager::getInstance()->stopBackEnd(); }

int runTestsWithBackend(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    watchLogsForSecrets();
    ::testing::AddGlobalTestEnvironment(new BackendEnvironment());
    return RUN_ALL_TESTS();
}
