// The backend's whole life in one process: before start, start, a stop that
// waits for running transfers, and the inert state after it. One test,
// because a stopped backend is never restarted within a process.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "webclient/exception.h"
#include "webclient/flat_api.h"
#include "webclient/webRequestcontroller.h"
#include "webclient/web_handle.h"
#include "webclient/web_request.h"

using Clock = std::chrono::steady_clock;

namespace {

void expectNotDrivenBeforeStart(WebRequestManager& backend, const std::string& url) {
    backend.stopBackEnd();  // before any start: only clears the running flag
    EXPECT_NE(backend.controller->multi, nullptr);
    WebRequest early(url, "GET", false);
    early.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    EXPECT_EQ(early.wait(1000), 1) << "registered, but nothing drives it yet";
}

void expectSecondStartIsFree(WebRequestManager& backend) {
    const auto start = Clock::now();
    backend.initBackEnd();
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(5));
    const auto again = Clock::now();
    backend.initBackEnd();
    EXPECT_LT(Clock::now() - again, std::chrono::milliseconds(500));
}

// With no descriptor free the backend cannot watch for new requests (each
// would start only when the socket wait times out): it is not made, and a
// later call makes it.
void expectNoBackendWithoutADescriptor() {
    // UBSan checks a type it meets for the first time through a pipe: the
    // exception's whole life is met here, while descriptors are free.
    try {
        throw WebException("", nullptr);
    } catch (const WebException& seen) {
        EXPECT_STREQ(seen.what(), "");
    }
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit low = before;
    low.rlim_cur = std::min<rlim_t>(before.rlim_cur, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    // Every free number taken, also those given back while this runs.
    std::vector<int> taken;
    for (int fd; (fd = dup(0)) >= 0;) taken.push_back(fd);
    EXPECT_THROW(WebRequestManager::getInstance(), WebException);
    for (int fd : taken) close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace

TEST(BackendLifecycle, StartStopAndInertAfterwards) {
    TestServer server;
    expectNoBackendWithoutADescriptor();
    WebRequestManager& backend = *WebRequestManager::getInstance();
    expectNotDrivenBeforeStart(backend, server.url("127.0.0.1", "/echo"));
    expectSecondStartIsFree(backend);

    // A stop waits for the transfer that is running; a second stop at the
    // same time (two modules shutting down) must not join or clean up twice.
    std::atomic<bool> transferDone{false}, started{false};
    std::thread owner([&] {
        WebRequest slow(server.url("127.0.0.1", "/slow/40000?chunk=10000&delay_ms=300"), "GET", false);
        slow.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs>) { started = true; },
                           [&] { transferDone = true; });
        slow.wait(10000);
    });
    while (!started) std::this_thread::yield();
    std::thread secondStop([&] { backend.stopBackEnd(); });
    backend.stopBackEnd();
    secondStop.join();
    EXPECT_TRUE(transferDone) << "stop returned before the running transfer ended";
    owner.join();
    EXPECT_EQ(backend.controller->multi, nullptr);

    LogCapture log;
    WebRequest after(server.url("127.0.0.1", "/echo"), "GET", false);
    EXPECT_EQ(log.count("WebRequest handle is NULL"), 1u);
    EXPECT_FALSE(WebHandleManager::getInstance()->GetWebHandle("http://192.0.2.1/", "GET"));
    EXPECT_EQ(log.countContaining("return empty handle"), 0u) << "a cleared pool refuses silently";
    EXPECT_FALSE(WebHandleManager::getInstance()->GetWebHandle("http://0.0.0.0/", "GET"));
    EXPECT_EQ(log.countContaining("return empty handle"), 1u);
    initCurlBackEnd();  // does not bring the pool back
    EXPECT_FALSE(WebHandleManager::getInstance()->GetWebHandle("http://192.0.2.1/", "GET"));
}
