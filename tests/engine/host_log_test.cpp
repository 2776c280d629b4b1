// The stand-in host logger's sink, as tests and hosts use it: a capture may
// free its state as soon as it is replaced, while other threads go on logging.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <functional>
#include <thread>

#include "support/log_capture.h"
#include "support/test_helpers.h"
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

TEST(HostLog, ASinkMayWaitForAThreadThatLogsWhileAReplacementWaits) {
    // A host's sink feeding a queue waits for room, which a consumer thread
    // makes after logging a line of its own; meanwhile the sink is replaced.
    std::mutex mutex;
    std::condition_variable changed;
    bool producerInSink = false;
    bool drained = false;
    std::atomic<std::thread::id> consumerId{};
    SetWebClientLogSink([&](int, int, const std::string&) {
        if (std::this_thread::get_id() == consumerId.load()) return;
        std::unique_lock<std::mutex> lock(mutex);
        producerInSink = true;
        changed.notify_all();
        changed.wait(lock, [&] { return drained; });
    });
    std::thread producer([] { orb_log_error(18, "a line the sink holds until the queue drains"); });
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return producerInSink; });
    }
    std::thread replacer([] { SetWebClientLogSink(nullptr); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the replacement waits for the producer
    std::thread consumer([&] {
        consumerId = std::this_thread::get_id();
        orb_log_error(18, "the consumer's own line");
        std::lock_guard<std::mutex> guard(mutex);
        drained = true;
        changed.notify_all();
    });
    bool consumerLogged = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        consumerLogged = changed.wait_for(lock, std::chrono::seconds(10), [&] { return drained; });
        drained = true;  // lets all three go if they were stuck
        changed.notify_all();
    }
    EXPECT_TRUE(consumerLogged) << "the consumer's line waited behind the pending replacement";
    for (std::thread* thread : {&producer, &replacer, &consumer}) thread->join();
}

namespace {

// Runs `body` in a child process that a hang ends (SIGALRM); its wait status.
// The child starts no thread (a sanitizer's runtime may not allow it).
int statusOfChildRunning(const std::function<void()>& body) {
    waitUntilOtherThreadsSleep();
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        body();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

pid_t g_forkedInSink = -1;

}  // namespace

TEST(HostLog, ForksAndCancellationsInsideTheSinkNeitherHangNorAbort) {
    // A child forked from inside the sink leaves it as its parent does, and
    // must then be able to replace the sink and log.
    const int forkStatus = statusOfChildRunning([] {
        SetWebClientLogSink([](int, int, const std::string&) {
            if (g_forkedInSink != -1) return;
            g_forkedInSink = fork();
            if (g_forkedInSink == 0) alarm(20);
        });
        orb_log_error(18, "a line whose sink forks");
        if (g_forkedInSink == 0) {
            SetWebClientLogSink(nullptr);
            orb_log_error(18, "a line after the sink was replaced in the forked child");
            _exit(0);
        }
        int status = -1;
        waitpid(g_forkedInSink, &status, 0);
        _exit(WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(forkStatus) && WEXITSTATUS(forkStatus) == 0) << forkStatus;

    // A thread cancelled while it logs from code that must not throw: the
    // cancellation waits for the line, it does not end the process.
    SetWebClientLogSink([](int, int, const std::string&) { std::this_thread::sleep_for(std::chrono::milliseconds(200)); });
    pthread_t thread;
    pthread_create(&thread, nullptr, [](void*) -> void* {
        []() noexcept { orb_log_error(18, "a line in code that must not throw"); }();
        for (;;) pause();
    }, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    SetWebClientLogSink(nullptr);
}
