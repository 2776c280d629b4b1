// A host that calls exit() while its own threads are still making requests:
// static destruction must not pull the handle pool out from under them.
// Each run is a child process (this binary again, with one environment
// variable), so that its exit is real.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/server_util.h"
#include "webclient/flat_api.h"
#include "webclient/host.h"

namespace {

constexpr char kChildUrl[] = "WEBCLIENT_TEST_EXIT_URL";

[[noreturn]] void callFromThreadsThenExit(const std::string& url) {
    // The test's own log capture is torn down by exit() too; it is not ours.
    SetWebClientLogSink(nullptr);
    for (int i = 0; i < 4; ++i) {
        std::thread([url] {
            for (;;) std::free(webClientGet(url.c_str(), nullptr, nullptr, nullptr, false));
        }).detach();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::exit(0);
}

std::string selfPath() {
    char path[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

}  // namespace

TEST(HostExit, ThreadsStillCallingDuringExitTouchNothingFreed) {
    if (const char* url = std::getenv(kChildUrl)) callFromThreadsThenExit(url);
    TestServer server("127.0.0.1");
    const std::string output = ::testing::TempDir() + "host_exit_child.txt";
    const std::string command = std::string(kChildUrl) + "='" + server.url("localhost", "/echo") + "' timeout 60 '" +
                                selfPath() + "' --gtest_filter='HostExit.*' > '" + output + "' 2>&1";
    for (int run = 0; run < 6; ++run) {
        const int status = std::system(command.c_str());
        std::ifstream file(output);
        std::stringstream text;
        text << file.rdbuf();
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "run " << run << ":\n" << text.str();
        ASSERT_EQ(text.str().find("Sanitizer"), std::string::npos) << "run " << run << ":\n" << text.str();
    }
}
