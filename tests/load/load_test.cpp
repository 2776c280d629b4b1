// Load: many threads mixing gets, posts, downloads and abandoned transfers across several origins
// (three numeric ones on the transfer thread, localhost on the callers'
// threads), with same-origin contention and requests abandoned mid-transfer.
// Every body is checked byte for byte; after the backend stops, no
// descriptor opened during the run is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/web_client.h"
#include "webclient/webRequestcontroller.h"

namespace {

constexpr int kThreads = 8;
constexpr int kExchangesPerThread = 500;

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class LoadRun {
public:
    LoadRun() : origins_{{"127.0.0.1", &first_}, {"127.0.0.2", &second_}, {"127.0.0.3", &third_},
                        {"localhost", &first_}} {
        for (TestServer* server : {&first_, &second_, &third_}) server->keepRecords(false);
    }

    // One exchange; returns an empty string when it was verified, else why not.
    std::string exchange(int thread, int round) {
        const unsigned seed = static_cast<unsigned>(thread * kExchangesPerThread + round) * 2654435761u;
        const auto& origin = origins_[static_cast<size_t>(thread + round) % origins_.size()];
        const std::string url = origin.second->url(origin.first, "");
        const size_t size = 1 + seed % 65536;
        switch ((round + thread / 2) % 4) {
            case 0: return get(url, size);
            case 1: return post(url, thread, round);
            case 2: return download(url, size);
            default: return origin.first == "localhost" ? get(url, size) : abandon(url);
        }
    }

private:
    std::string get(const std::string& base, size_t size) {
        WebClient client;
        std::vector<std::string> headers{"X-Load: get"};
        std::string response, error;
        int code = 0;
        client.get(base + "/bytes/" + std::to_string(size), "", "", headers, response, &code, error, false);
        if (code != 200 || response != pattern(size)) return "GET " + std::to_string(code) + " " + error;
        return "";
    }

    std::string post(const std::string& base, int thread, int round) {
        WebClient client;
        std::vector<std::string> headers;
        const std::string body = std::to_string(thread) + "/" + std::to_string(round) + pattern(1000);
        std::string response, error;
        client.post(base + "/echo", "user", kSentinelSecret, body, headers, response, error, false);
        if (response.rfind("POST /echo\n", 0) != 0 || !endsWith(response, "\n\n" + body)) {
            return "POST unexpected answer, error '" + error + "'";
        }
        return "";
    }

    std::string download(const std::string& base, size_t size) {
        TempFile out;
        download_param param;
        param.url = base + "/bytes/" + std::to_string(size);
        int code = 0;
        WebClient client;
        const std::string error = client.downloadStream(&param, openForWriting(out.path()), &code, false);
        if (code != 200 || readWholeFile(out.path()) != pattern(size)) return "download " + error;
        return "";
    }

    // Starts a slow transfer and destroys the request while it runs.
    std::string abandon(const std::string& base) {
        std::atomic<bool> started{false};
        {
            WebRequest request(base + "/slow/400000?chunk=8192&delay_ms=2", "GET", false);
            std::vector<std::string> headers;
            request.getAsync(headers, [&](std::shared_ptr<DataReceivedEventArgs>) { started = true; }, {});
            for (int i = 0; i < 200 && !started; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return started ? "" : "abandoned transfer never started";
    }

    TestServer first_{"127.0.0.1"};
    TestServer second_{"127.0.0.2"};
    TestServer third_{"127.0.0.3"};
    std::vector<std::pair<std::string, TestServer*>> origins_;
};

}  // namespace

TEST(Load, MixedExchangesFromManyThreadsAllVerifiedAndNothingLeaks) {
    WebRequestManager* manager = WebRequestManager::getInstance();
    const std::map<int, std::string> before = openDescriptors();
    manager->initBackEnd();
    std::atomic<int> verified{0};
    std::mutex failureMutex;
    std::vector<std::string> failures;
    {
        LoadRun run;
        // A deadlock ends in CTest's time limit for the binary.
        std::vector<std::thread> workers;
        for (int thread = 0; thread < kThreads; ++thread) {
            workers.emplace_back([&, thread] {
                for (int round = 0; round < kExchangesPerThread; ++round) {
                    const std::string failure = run.exchange(thread, round);
                    if (failure.empty()) {
                        ++verified;
                        continue;
                    }
                    std::lock_guard<std::mutex> guard(failureMutex);
                    failures.push_back(std::to_string(thread) + "/" + std::to_string(round) + ": " + failure);
                }
            });
        }
        for (std::thread& worker : workers) worker.join();
    }
    manager->stopBackEnd();
    EXPECT_EQ(verified, kThreads * kExchangesPerThread);
    for (size_t i = 0; i < failures.size() && i < 10; ++i) ADD_FAILURE() << failures[i];
    for (const auto& entry : openDescriptors()) {
        auto found = before.find(entry.first);
        EXPECT_TRUE(found != before.end() && found->second == entry.second)
            << "descriptor " << entry.first << " (" << entry.second << ") outlived the run";
    }
}
