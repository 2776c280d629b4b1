// WebRequest and its asynchronous verbs against a real loopback server, on
// both dispatch paths: a numeric address runs on the transfer thread, a
// domain name on the caller's thread.
#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "support/server_util.h"
#include "support/test_helpers.h"
#include "engine/web_request_impl.h"
#include "support/log_capture.h"
#include "webclient/web_request.h"

class Dispatch : public ::testing::TestWithParam<const char*> {
protected:
    TestServer server;
    std::string url(const std::string& path) { return serverUrl(server, GetParam(), path); }
    bool background() const { return std::string(GetParam()) != "localhost"; }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, Dispatch, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(Dispatch, GetWithCredentialsRunsOnTheExpectedThread) {
    Collected body, headers;
    bool completed = false;
    std::vector<std::string> lines = {"X-Probe: one", "X-Other: two"};
    {
        WebRequest request(url("/echo"), "GET", false);
        request.getAsync("alice", "s3cret", lines, body.callback(), headers.callback(),
                         [&] { completed = true; });
        EXPECT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.impl_->result, CURLE_OK);
        EXPECT_EQ(request.getResponseCode(), 200);
        EXPECT_EQ(completed, background()) << "completion is signalled only on the transfer thread";
    }
    EXPECT_EQ(body.onCallerThread(), !background());
    EXPECT_NE(headers.text().find("HTTP/1.1 200"), std::string::npos);
    RecordedRequest seen = lastRequest(server);
    EXPECT_EQ(seen.method, "GET");
    EXPECT_EQ(headerOf(seen, "X-Probe"), "one");
    EXPECT_EQ(headerOf(seen, "X-Other"), "two");
    EXPECT_EQ(headerOf(seen, "Authorization"), "Basic YWxpY2U6czNjcmV0");
}

TEST_P(Dispatch, BodyVerbsSendMethodBodyAndCredentials) {
    struct Case {
        const char* method;
        std::function<void(WebRequest&, std::vector<std::string>&, const std::string&, Collected&)> start;
    };
    const std::vector<Case> cases = {
        {"POST", [](WebRequest& r, auto& h, auto& b, Collected& c) { r.postAsync("u", "p", b, h, c.callback(), {}); }},
        {"PUT", [](WebRequest& r, auto& h, auto& b, Collected& c) { r.putAsync("u", "p", b, h, c.callback(), {}); }},
        {"PATCH", [](WebRequest& r, auto& h, auto& b, Collected& c) { r.patchAsync("u", "p", b, h, c.callback(), {}); }},
    };
    for (const auto& c : cases) {
        Collected body;
        std::vector<std::string> lines = {"Content-Type: text/plain"};
        const std::string payload = std::string("payload for ") + c.method;
        {
            WebRequest request(url("/echo"), c.method, false);
            c.start(request, lines, payload, body);
            ASSERT_EQ(request.wait(5000), 0);
            EXPECT_EQ(request.getResponseCode(), 200) << c.method;
        }
        RecordedRequest seen = lastRequest(server);
        EXPECT_EQ(seen.method, c.method);
        EXPECT_EQ(seen.body, payload) << c.method;
        EXPECT_EQ(headerOf(seen, "Authorization"), "Basic dTpw") << c.method;
    }
    Collected body;
    std::vector<std::string> none;
    {
        WebRequest request(url("/echo"), "DELETE", false);
        request.deleteAsync("u", "", none, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    RecordedRequest seen = lastRequest(server);
    EXPECT_EQ(seen.method, "DELETE");
    EXPECT_EQ(headerOf(seen, "Authorization"), "") << "an empty password sends no credentials";
}

TEST_P(Dispatch, PostBodyStopsAtFirstNulAndAnonymousPostSendsNoCredentials) {
    Collected body;
    std::vector<std::string> none;
    const std::string payload("before\0after", 12);
    {
        WebRequest request(url("/echo"), "POST", false);
        request.postAsync(payload, none, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    RecordedRequest seen = lastRequest(server);
    EXPECT_EQ(seen.body, "before");
    EXPECT_EQ(headerOf(seen, "Authorization"), "");
}

TEST_P(Dispatch, CookieIsSentOnlyWhenGiven) {
    std::vector<std::string> none;
    for (const std::string cookie : {"session=abc; theme=dark", ""}) {
        Collected body, headers;
        {
            WebRequest request(url("/echo"), "GET", false);
            request.getAsync("", "", cookie, none, body.callback(), headers.callback(), {});
            ASSERT_EQ(request.wait(5000), 0);
        }
        EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), cookie);
    }
}

TEST_P(Dispatch, UploadFromStreamPutsTheFileAndNullStreamGets) {
    TempFile file("stream upload contents\n");
    FILE* stream = std::fopen(file.path().c_str(), "rb");
    ASSERT_NE(stream, nullptr);
    std::vector<std::string> none;
    {
        Collected body;
        WebRequest request(url("/echo"), "PUT", false);
        request.uploadAsync("u", "p", none, stream, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    std::fclose(stream);
    EXPECT_EQ(lastRequest(server).method, "PUT");
    EXPECT_EQ(lastRequest(server).body, "stream upload contents\n");
    {
        Collected body;
        WebRequest request(url("/echo"), "PUT", false);
        request.uploadAsync("", "", none, nullptr, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    EXPECT_EQ(lastRequest(server).method, "GET");
}

TEST_P(Dispatch, MultipartUploadCarriesFieldsThenFile) {
    TempFile file("file part bytes");
    std::vector<std::string> none;
    std::map<std::string, std::string> fields = {{"b_field", "2"}, {"a_field", "1"}};
    {
        Collected body, headers;
        WebRequest request(url("/echo"), "POST", false);
        request.uploadAsyncByPost("u", "p", none, fields, "image", file.path(), body.callback(),
                                  headers.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.getResponseCode(), 200);
    }
    RecordedRequest seen = lastRequest(server);
    ASSERT_EQ(seen.parts.size(), 3u);
    EXPECT_EQ(seen.parts[0].name, "a_field");
    EXPECT_EQ(seen.parts[0].content, "1");
    EXPECT_EQ(seen.parts[2].name, "image");
    EXPECT_EQ(seen.parts[2].content, "file part bytes");
    EXPECT_EQ(seen.parts[2].content_type, "application/octet-stream");
    {
        Collected body, headers;
        WebRequest request(url("/echo"), "POST", false);
        request.uploadAsyncByPost("u", "p", none, fields, "image", "", body.callback(),
                                  headers.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    seen = lastRequest(server);
    EXPECT_EQ(seen.method, "POST");
    EXPECT_TRUE(seen.parts.empty()) << "no file: no form at all";
    EXPECT_EQ(seen.body, "");
}

TEST_P(Dispatch, CancelFromDataCallbackEndsWithWriteError) {
    int chunks = 0;
    {
        WebRequest request(url("/bytes/1048576"), "GET", false);
        request.downloadAsync(
            [&](std::shared_ptr<DataReceivedEventArgs> args) { args->cancel = (++chunks == 1); }, {});
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.impl_->result, CURLE_WRITE_ERROR);
    }
    EXPECT_EQ(chunks, 1);
    EXPECT_EQ(fetchStatus(url("/status/200")), 200) << "the origin stays usable";
}

TEST_P(Dispatch, ContentLengthIsOfferedOnlyWhenKnown) {
    double announced = 0, chunkedAnnounced = 0;
    {
        WebRequest request(url("/bytes/100000"), "GET", false);
        request.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs> a) { announced = a->content_length; }, {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    {
        WebRequest request(url("/bytes-chunked/100000"), "GET", false);
        request.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs> a) { chunkedAnnounced = a->content_length; }, {});
        ASSERT_EQ(request.wait(5000), 0);
    }
    EXPECT_EQ(announced, 100000.0);
    EXPECT_EQ(chunkedAnnounced, -1.0);
}

TEST_P(Dispatch, RedirectsAreFollowed) {
    Collected body;
    std::vector<std::string> none;
    {
        WebRequest request(url("/redirect?to=/status/201"), "GET", false);
        request.getAsync(none, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.getResponseCode(), 201);
    }
    // A loop ends at the redirect limit, long before any wait limit.
    WebRequest loop(url("/redirect-loop"), "GET", false);
    loop.getAsync(none, body.callback(), {});
    ASSERT_EQ(loop.wait(5000), 0);
    EXPECT_EQ(loop.impl_->result, CURLE_TOO_MANY_REDIRECTS);
}

TEST(WebRequestWait, DeadlineDropsTheMillisecondRemainder) {
    TestServer server;
    LogCapture log;
    const std::string stalled = serverUrl(server, "127.0.0.1", "/stall?ms=4000");
    {
        WebRequest request(stalled, "GET", false);
        request.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(request.wait(999), 1) << "999 ms rounds down to a deadline of now";
        EXPECT_EQ(request.wait(1500), 1);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_LT(waited, std::chrono::milliseconds(2500));
        EXPECT_GE(log.countContaining("WebRequest::wait pthread_cond_timedwait timeout("), 2u);
        // Destroyed while the server still stalls: detached before release.
    }
    WebRequest next(serverUrl(server, "127.0.0.1", "/status/204"), "GET", false);
    next.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    EXPECT_EQ(next.wait(5000), 0) << "the same origin works right after";
    EXPECT_EQ(next.getResponseCode(), 204);
    EXPECT_EQ(log.countContaining("Get the pthread_cond_timedwait result : 0"), 1u);
}

TEST(WebRequestWait, DirectPathNeedsNoWaitWhateverTheResult) {
    WebRequest request("http://localhost:1/unreachable", "GET", false);
    request.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    EXPECT_NE(request.impl_->result, CURLE_OK);
    EXPECT_EQ(request.wait(60000), 0);
}

TEST(WebRequestSetup, UnusableUrlGivesAnInertRequest) {
    LogCapture log;
    bool called = false;
    WebRequest request("http://0.0.0.0:1/x", "GET", false);
    EXPECT_EQ(log.count("WebRequest handle is NULL"), 1u);
    std::vector<std::string> none;
    request.getAsync(none, [&](std::shared_ptr<DataReceivedEventArgs>) { called = true; }, {});
    EXPECT_EQ(request.wait(60000), 0);
    EXPECT_EQ(request.impl_->result, CURLE_OK);
    EXPECT_FALSE(called);
}

TEST(WebRequestSetup, LocalHttpsNeverVerifies) {
    LogCapture log;
    for (const char* url : {"https://127.0.0.1", "https://127.0.0.1/x", "https://127.0.0.1:8443/x"}) {
        WebRequest request(url, "GET", true);
        EXPECT_FALSE(request.use_ssl) << url;
    }
    EXPECT_EQ(log.count("WebRequest() Accessing https://127.0.0.1, disable SSL by default"), 3u);
    WebRequest quiet("https://127.0.0.1/y", "POST", false);
    EXPECT_EQ(log.count("WebRequest() Accessing https://127.0.0.1, disable SSL by default"), 3u);
    for (const char* url : {"https://127.0.0.10/", "http://127.0.0.1/", "https://127.0.0.2/"}) {
        WebRequest request(url, "PUT", true);
        EXPECT_TRUE(request.use_ssl) << url;
    }
}

TEST(WebRequestLogging, SecretsInUrlsAreMaskedInEveryLine) {
    TestServer server;
    LogCapture log;
    for (const char* host : {"127.0.0.1", "localhost"}) {
        WebRequest request(serverUrl(server, host, "/status/500?password=hunter2&client_secret=xyzzy"),
                           "GET", false);
        request.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
        request.wait(5000);
    }
    WebRequest unreachable("http://127.0.0.1:1/x?password=hunter2", "GET", false);
    unreachable.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    unreachable.wait(5000);
    EXPECT_GT(log.countContaining("password=***"), 3u);
    EXPECT_EQ(log.countContaining("hunter2"), 0u);
    EXPECT_EQ(log.countContaining("xyzzy"), 0u);
}

TEST(WebRequestPool, SameOriginRequestsRunOneAfterAnother) {
    TestServer server;
    const std::string target = serverUrl(server, "127.0.0.1", "/echo");
    std::atomic<bool> secondConstructed{false};
    std::thread second;
    {
        WebRequest first(target, "GET", false);
        second = std::thread([&] {
            WebRequest waiting(target, "GET", false);  // blocks until `first` is gone
            secondConstructed = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(secondConstructed);
        WebRequest otherClass(target, "POST", false);  // other method class: not blocked
    }
    second.join();
    EXPECT_TRUE(secondConstructed);
}
