// The stand-in host logger's sink, as tests and hosts use it: a capture may
// free its state as soon as it is replaced, while other threads go on logging.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/log_capture.h"
#include "webclient/host.h"

TEST(HostLog, AReplacedSinkIsNeverCalledAgain) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) orb_log_debug(18, "a line from another thread");
    });
    for (int round = 0; round < 300; ++round) {
        LogCapture capture;  // its lines and lock are gone after each round
        std::this_thread::yield();
    }
    stop = true;
    writer.join();

    // A sink that replaces itself would wait for its own call.
    SetWebClientLogSink([](int, int, const std::string&) { SetWebClientLogSink(nullptr); });
    orb_log_error(18, "a line for a sink that replaces itself");
    SetWebClientLogSink(nullptr);
}
