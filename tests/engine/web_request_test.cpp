// WebRequest on both dispatch paths: a numeric address runs on the transfer
// thread, a domain name on the caller's thread. What each verb sends is
// checked once, through the exported functions (tests/capi); here: threads,
// uploads, cancelling, waiting and the per-origin lock.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "engine/web_request_impl.h"
#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/exception.h"
#include "webclient/webRequestcontroller.h"
#include "webclient/web_request.h"

class Dispatch : public ::testing::TestWithParam<const char*> {
protected:
    TestServer server;
    std::string url(const std::string& path) { return server.url(GetParam(), path); }
    bool background() const { return std::string(GetParam()) != "localhost"; }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, Dispatch, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(Dispatch, CallbacksRunOnTheExpectedThreadWithTheLengthWhenKnown) {
    for (const std::string path : {"/bytes/300000", "/bytes-chunked/300000"}) {
        Collected body, headers;
        bool completed = false;
        {
            WebRequest request(url(path), "GET", false);
            request.downloadAsync("", "", noHeaders, body.callback(), headers.callback(), [&] { completed = true; });
            ASSERT_EQ(request.wait(5000), 0) << path;
            EXPECT_EQ(request.impl->result, CURLE_OK) << path;
            EXPECT_EQ(request.getResponseCode(), 200) << path;
            EXPECT_EQ(completed, background()) << "completion is signalled only on the transfer thread";
        }
        EXPECT_EQ(body.onOtherThread, background()) << path;
        EXPECT_EQ(headers.onOtherThread, background()) << path;
        EXPECT_EQ(body.text, pattern(300000)) << path;
        EXPECT_EQ(headers.text.rfind("HTTP/1.1 200", 0), 0u) << path;
        EXPECT_EQ(body.contentLength, path.find("chunked") == std::string::npos ? 300000.0 : -1.0) << path;
    }
}

TEST_P(Dispatch, UploadsSendTheFormAndNeverStandardInput) {
    StdinWithData stdinData("must not be sent");
    TempFile file("upload contents\n");
    std::map<std::string, std::string> fields = {{"b_field", "2"}, {"a_field", "1"}};
    Collected headers;
    auto run = [&](const char* method, const std::function<void(WebRequest&)>& start) {
        WebRequest request(url("/echo"), method, false);
        start(request);
        EXPECT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.getResponseCode(), 200);
        return lastRequest(server);
    };
    RecordedRequest seen = run("POST", [&](WebRequest& r) {
        r.uploadAsyncByPost("u", "p", noHeaders, fields, "image", file.path(), ignore, headers.callback(), {});
    });
    ASSERT_EQ(seen.parts.size(), 3u) << "each field and the file";
    EXPECT_EQ(seen.parts[0].name + "=" + seen.parts[0].content, "a_field=1");
    EXPECT_EQ(seen.parts[2].name + "=" + seen.parts[2].content, "image=upload contents\n");
    EXPECT_EQ(seen.parts[2].content_type, "application/octet-stream");
    // No file and no fields: an empty POST, not libcurl's default of stdin.
    seen = run("POST", [&](WebRequest& r) { r.uploadAsyncByPost("u", "p", noHeaders, "image", "", ignore, {}); });
    EXPECT_EQ(seen.body, "");
}

// The size a stream upload announces is the file's at set-up. The server
// changes the file while libcurl waits for its "100 Continue": what the file
// gains must not follow the body onto the kept connection (where it would be
// read as the next request), and what it loses must fail the transfer at once
// instead of leaving the server waiting for it.
TEST_P(Dispatch, AStreamUploadSendsExactlyTheAnnouncedSize) {
    TempFile file;
    std::function<void()> changeFile = [] {};
    TestServer device("127.0.0.1", [&](httplib::Server& s) {
        s.set_expect_100_continue_handler([&](const httplib::Request&, httplib::Response&) {
            changeFile();
            return 100;
        });
    });
    curl_off_t sent = 0;
    const auto put = [&](std::FILE* stream) {
        WebRequest request(device.url(GetParam(), "/echo"), "PUT", false);
        request.uploadAsync("", "", noHeaders, stream, ignore, {});
        EXPECT_EQ(request.wait(10000), 0);
        curl_easy_getinfo(request.impl->curl_handle, CURLINFO_SIZE_UPLOAD_T, &sent);
        return request.impl->result;
    };
    const auto putFile = [&](const std::function<void()>& change) {
        std::ofstream(file.path(), std::ios::binary | std::ios::trunc) << std::string(100000, 'a');
        changeFile = change;
        std::unique_ptr<FILE, int (*)(FILE*)> stream(std::fopen(file.path().c_str(), "rb"), std::fclose);
        return put(stream.get());
    };
    EXPECT_EQ(putFile([&] {
        std::ofstream(file.path(), std::ios::binary | std::ios::app) << "DELETE /echo HTTP/1.1\r\nHost: x\r\n\r\n";
    }), CURLE_OK);
    EXPECT_EQ(sent, 100000);
    EXPECT_EQ(lastRequest(device).body, std::string(100000, 'a'));

    LogCapture log;
    EXPECT_EQ(putFile([&] { EXPECT_EQ(truncate(file.path().c_str(), 100), 0); }), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(log.count("upload file ended after 100 of the 100000 bytes announced"), 1u);

    // A pipe has no size to announce: it is sent to its end.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], "piped body", 10), 10);
    close(ends[1]);
    std::unique_ptr<FILE, int (*)(FILE*)> piped(fdopen(ends[0], "rb"), std::fclose);
    changeFile = [] {};
    EXPECT_EQ(put(piped.get()), CURLE_OK);
    EXPECT_EQ(lastRequest(device).body, "piped body");
}

// A write that is redirected arrives at the new location whole: a PUT or
// PATCH body, a streamed file sent again from its start. A 303, "see
// other", says the write is done: a streamed PUT becomes a GET there, and a
// PUT, PATCH or DELETE ends at the 303 rather than go out again, bodiless,
// to the other location.
TEST_P(Dispatch, RedirectedWritesArriveWhole) {
    TempFile file("streamed body");
    const std::string body = "sent body";  // not copied: it must outlive the transfer
    for (const int code : {301, 302, 303, 307, 308}) {
        // A 303 also gets an empty second Location, which libcurl ignores.
        const std::string target = url("/redirect?code=" + std::to_string(code) + (code == 303 ? "&blank_too=1" : "") +
                                       "&to=" + url("/echo"));
        for (const std::string method : {"PUT", "PATCH", "DELETE"}) {
            if (method == "DELETE" && code != 303) break;
            WebRequest request(target, method, false);
            if (method == "PUT") {
                request.putAsync("", "", body, noHeaders, ignore, {});
            } else if (method == "PATCH") {
                request.patchAsync("", "", body, noHeaders, ignore, {});
            } else {
                request.deleteAsync("", "", noHeaders, ignore, {});
            }
            ASSERT_EQ(request.wait(5000), 0);
            const RecordedRequest seen = lastRequest(server);
            const std::string sentBody = method == "DELETE" ? "" : "sent body";
            EXPECT_EQ(seen.path + " " + seen.method + " " + seen.body,
                      (code == 303 ? "/redirect " : "/echo ") + method + " " + sentBody)
                << code;
            EXPECT_EQ(request.getResponseCode(), code == 303 ? 303 : 200) << code << method;
            EXPECT_EQ(request.impl->result, CURLE_OK) << code << method;
        }
        std::unique_ptr<FILE, int (*)(FILE*)> stream(std::fopen(file.path().c_str(), "rb"), std::fclose);
        WebRequest upload(target, "PUT", false);
        upload.uploadAsync("", "", noHeaders, stream.get(), ignore, {});
        ASSERT_EQ(upload.wait(5000), 0);
        const RecordedRequest seen = lastRequest(server);
        EXPECT_EQ(seen.method + " " + seen.body, code == 303 ? "GET " : "PUT streamed body") << code;
    }
    {
        // Header names match in ASCII whatever the host's locale.
        TurkishLocale turkish;
        ASSERT_TRUE(turkish.active());
        WebRequest shouted(url("/redirect?code=303&upper=1&to=" + url("/echo")), "DELETE", false);
        shouted.deleteAsync("", "", noHeaders, ignore, {});
        ASSERT_EQ(shouted.wait(5000), 0);
        EXPECT_EQ(lastRequest(server).path, "/redirect");
    }
    // A 303 that names no other location is an ordinary answer, body and all.
    Collected answer;
    WebRequest unmoved(url("/status/303"), "PUT", false);
    unmoved.putAsync("", "", body, noHeaders, answer.callback(), {});
    ASSERT_EQ(unmoved.wait(5000), 0);
    EXPECT_EQ(answer.text, "status 303");
}

TEST_P(Dispatch, CancelOrExceptionFromCallbacksEndsTheTransferCleanly) {
    int chunks = 0;
    {
        WebRequest request(url("/bytes/1048576"), "GET", false);
        request.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs> args) { args->cancel = (++chunks == 1); }, {});
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.impl->result, CURLE_WRITE_ERROR);
    }
    EXPECT_EQ(chunks, 1);
    {
        // An exception must not unwind through libcurl: a logged write error.
        LogCapture log;
        WebRequest request(url("/bytes/1048576"), "GET", false);
        request.downloadAsync([](std::shared_ptr<DataReceivedEventArgs>) { throw std::runtime_error("no room"); }, {});
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.impl->result, CURLE_WRITE_ERROR);
        EXPECT_EQ(log.count("[receiveData] unexpected exception no room"), 1u);
    }
    if (background()) {
        // A throwing completion callback (only background transfers have
        // one) still completes the request and leaves the thread running.
        LogCapture log;
        WebRequest request(url("/bytes/10"), "GET", false);
        request.getAsync(noHeaders, ignore, [] { throw std::runtime_error("late"); });
        ASSERT_EQ(request.wait(5000), 0);
        EXPECT_EQ(request.impl->result, CURLE_OK);
        EXPECT_EQ(log.count("[setComplete] unexpected exception late"), 1u);
    }
    if (background()) {
        LogCapture log;
        // A callback that makes, starts, aborts or waits for a request, or
        // stops the backend, would wait for the very thread it runs on: each
        // refused.
        WebRequest other(url("/bytes/10"), "POST", false);
        WebRequest running(url("/bytes/10"), "GET", false);
        std::vector<std::string> refused;
        int waitInCompletion = -1;
        running.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs>) {
            WebRequest nested(url("/bytes/10"), "GET", false);  // `running`'s handle: locked by its owner
            if (nested.impl->curl_handle == nullptr) refused.push_back("new");
            for (const auto& call : std::vector<std::function<void()>>{
                     [&] { WebRequestManager::getInstance()->beginRequest(&other); }, [&] { running.abort(); }}) {
                try {
                    call();
                } catch (const WebException&) {
                    refused.push_back("call");
                }
            }
            WebRequestManager::getInstance()->stopBackEnd();
            if (running.wait(600000) == 1) refused.push_back("wait");
        }, [&] { waitInCompletion = running.wait(600000); });
        ASSERT_EQ(running.wait(5000), 0);
        EXPECT_EQ(running.impl->result, CURLE_OK);
        EXPECT_EQ(refused, (std::vector<std::string>{"new", "call", "call", "wait"}));
        EXPECT_EQ(waitInCompletion, 0) << "in its completion callback the transfer has ended";
        EXPECT_EQ(log.count("stopBackEnd called inside a transfer callback: ignored"), 1u);
        EXPECT_EQ(log.countContaining("WebRequest::wait inside a transfer callback: not waiting"), 1u);
    }
    // Every log line is checked for secrets: the query's password must show masked.
    EXPECT_EQ(completeGet(url("/status/200?password=hunter2")), 200) << "the origin stays usable";
}

// A request handed to the transfer thread is that thread's until abort():
// a second verb would rewrite its options and free its header list under the
// running transfer. After abort() a verb starts afresh: nothing of the
// earlier verb's method, body or outcome carries over.
TEST(WebRequestVerbs, ASecondVerbWaitsForAbortThenStartsAfresh) {
    TestServer server;
    std::vector<std::string> headers = {"X-First: 1"};
    const std::string body = "second";
    WebRequest request(server.url("127.0.0.1", "/stall?ms=300"), "GET", false);
    request.getAsync(headers, ignore, {});
    EXPECT_THROW(request.postAsync(body, headers, ignore, {}), WebException);
    ASSERT_EQ(request.wait(5000), 0);
    EXPECT_EQ(request.impl->result, CURLE_OK);
    EXPECT_THROW(request.getAsync(headers, ignore, {}), WebException) << "completed, still registered";
    EXPECT_EQ(lastRequest(server).method + " " + lastRequest(server).path, "GET /stall");
    EXPECT_EQ(server.requests().size(), 1u);

    TempFile file("uploaded");
    for (const char* host : {"127.0.0.1", "localhost"}) {
        std::unique_ptr<FILE, int (*)(FILE*)> stream(std::fopen(file.path().c_str(), "rb"), std::fclose);
        WebRequest reused(server.url(host, "/echo"), "PUT", false);
        reused.uploadAsync("", "", headers, stream.get(), ignore, {});
        ASSERT_EQ(reused.wait(5000), 0);
        reused.abort();
        Collected answer;
        reused.getAsync("", "", "sid=1", headers, answer.callback(), ignore, {});
        ASSERT_EQ(reused.wait(5000), 0);
        RecordedRequest seen = lastRequest(server);
        EXPECT_EQ(seen.method + " " + seen.body + " " + headerOf(seen, "Cookie"), "GET  sid=1") << host;
        EXPECT_EQ(answer.text.rfind("GET /echo", 0), 0u) << host << ": waited for the second transfer";
        reused.abort();
        reused.getAsync("", "", noHeaders, ignore, ignore, {});  // no cookie argument
        ASSERT_EQ(reused.wait(5000), 0);
        seen = lastRequest(server);
        EXPECT_EQ(headerOf(seen, "X-First") + headerOf(seen, "Cookie"), "") << host << ": no line of the earlier verb";
    }
}

TEST(WebRequestWait, NothingToWaitForOnTheDirectPathOrWithoutAHandle) {
    LogCapture log;
    WebRequest direct("http://localhost:1/unreachable?client_secret=xyzzy", "GET", false);
    direct.downloadAsync(ignore, {});
    EXPECT_NE(direct.impl->result, CURLE_OK);
    EXPECT_EQ(direct.wait(60000), 0);

    bool called = false;
    WebRequest inert("http://0.0.0.0:1/x?password=hunter2", "GET", false);
    EXPECT_EQ(log.count("WebRequest handle is NULL"), 1u);
    inert.downloadAsync([&](std::shared_ptr<DataReceivedEventArgs>) { called = true; }, {});
    EXPECT_EQ(inert.wait(60000), 0);
    EXPECT_EQ(inert.impl->result, CURLE_OK);
    EXPECT_FALSE(called);
}

TEST(WebRequestPool, SameOriginRequestsRunOneAfterAnother) {
    TestServer server;
    const std::string target = server.url("127.0.0.1", "/echo");
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
        // This thread asking again would wait for itself: an inert request instead.
        WebRequest again(target, "GET", false);
        EXPECT_EQ(again.impl->curl_handle, nullptr);
    }
    second.join();
    EXPECT_TRUE(secondConstructed);
}
