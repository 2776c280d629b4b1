// The transfer loop: new work is picked up while another transfer is
// quiet, and sockets numbered above 1023 are watched like any other.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "engine/web_request_impl.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/web_request.h"

namespace {

bool isCompleted(WebRequest& request) {
    pthread_mutex_lock(&request.mutex);
    const bool done = request.completed;
    pthread_mutex_unlock(&request.mutex);
    return done;
}

// Takes every free descriptor number below `count`, so that new sockets
// are numbered `count` or above; released by the destructor.
class OccupiedDescriptors {
public:
    explicit OccupiedDescriptors(int count) {
        struct rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(count) + 100) {
            limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, static_cast<rlim_t>(count) + 100);
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        for (int fd = dup(STDIN_FILENO); fd >= 0; fd = dup(STDIN_FILENO)) {
            if (fd >= count) {
                close(fd);
                break;
            }
            taken_.push_back(fd);
        }
    }
    ~OccupiedDescriptors() {
        for (int fd : taken_) close(fd);
    }

private:
    std::vector<int> taken_;
};

}  // namespace

TEST(TransferLoop, NewRequestsAreServedWhileAnotherTransferIsQuiet) {
    TestServer stalling, quick;
    WebRequest stalled(stalling.url("127.0.0.1", "/stall?ms=4000"), "GET", false);
    stalled.getAsync(noHeaders, ignore, {});
    // Each of these would wait out the loop's socket wait if registering a
    // request did not end it; twenty of them would outlast the stall.
    for (int i = 0; i < 20; ++i) ASSERT_EQ(completeGet(quick.url("127.0.0.1", "/status/200")), 200) << i;
    EXPECT_FALSE(isCompleted(stalled)) << "the quick requests had to wait for the stalled one";
}

TEST(TransferLoop, SocketsAbove1023AreServed) {
    TestServer server;
    OccupiedDescriptors occupied(1100);
    const int probe = dup(STDIN_FILENO);
    ASSERT_GE(probe, 1100);
    close(probe);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(completeGet(server.url("127.0.0.1", "/bytes/100000")), 200) << i;
        EXPECT_EQ(completeGet(server.url("localhost", "/bytes/100000")), 200) << i;
    }
    // A transfer that goes quiet between pieces is woken for each of them.
    Collected body;
    {
        WebRequest request(server.url("127.0.0.1", "/slow/200000?chunk=20000&delay_ms=20"), "GET", false);
        request.downloadAsync(body.callback(), {});
        ASSERT_EQ(request.wait(10000), 0);
        EXPECT_EQ(request.impl->result, CURLE_OK);
    }
    EXPECT_EQ(body.text, pattern(200000));
}

// An owner that closes its transfer mid-stream can do so just after poll()
// reported that transfer's socket ready. The loop must then still drive the
// quiet transfers instead of taking the dropped event for "nothing active"
// and sleeping until the next registration.
TEST(TransferLoop, ClosingAStreamingTransferDoesNotStallAQuietOne) {
    TestServer holding, streaming;
    for (int round = 0; round < 10; ++round) {
        WebRequest held(holding.url("127.0.0.1", "/stall?ms=300"), "GET", false);
        Collected answer;
        held.getAsync(noHeaders, answer.callback(), {});
        auto received = std::make_shared<std::atomic<long>>(0);
        auto flowing = std::make_unique<WebRequest>(
            streaming.url("127.0.0.1", "/slow/100000000?chunk=16384&delay_ms=0"), "GET", false);
        flowing->downloadAsync([received](std::shared_ptr<DataReceivedEventArgs> args) { *received += args->size; },
                               {});
        for (int i = 0; i < 2000 && *received < 1000000; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        flowing.reset();
        ASSERT_EQ(held.wait(10000), 0) << "round " << round;
        EXPECT_EQ(held.impl->result, CURLE_OK);
        EXPECT_EQ(answer.text, "stalled");
    }
}
