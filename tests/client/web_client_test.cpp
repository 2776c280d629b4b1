// WebClient's blocking verbs: outputs, result classification, wait limits.
#include <gtest/gtest.h>

#include "engine/web_request_impl.h"
#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/web_client.h"

class BlockingVerbs : public ::testing::TestWithParam<const char*> {
protected:
    TestServer server;
    WebClient client;
    std::vector<std::string> headers = {"X-Probe: 7"};
    std::string url(const std::string& path) { return serverUrl(server, GetParam(), path); }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, BlockingVerbs, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(BlockingVerbs, GetReturnsBodyHeadersAndStatus) {
    std::string responseHeaders = "kept:", response = "stale", error = "caller's";
    int code = -1;
    client.get(url("/echo"), "u", "p", "k=v", headers, responseHeaders, response, error, &code, false);
    EXPECT_EQ(code, 200);
    EXPECT_NE(response.find("GET"), std::string::npos);
    EXPECT_EQ(responseHeaders.rfind("kept:HTTP/1.1 200", 0), 0u) << "header text is appended, not cleared";
    EXPECT_EQ(error, "caller's") << "success leaves the caller's error text alone";
    RecordedRequest seen = lastRequest(server);
    EXPECT_EQ(headerOf(seen, "Cookie"), "k=v");
    EXPECT_EQ(headerOf(seen, "X-Probe"), "7");
}

TEST_P(BlockingVerbs, EveryMethodReachesTheServer) {
    std::string response, error, responseHeaders;
    int code = 0;
    client.post(url("/echo"), "u", "p", "posted", headers, response, code, error, false);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(lastRequest(server).body, "posted");
    client.put(url("/echo"), "u", "p", "put body", headers, response, &code, error, false);
    EXPECT_EQ(lastRequest(server).method, "PUT");
    client.patch(url("/echo"), "u", "p", "patched", headers, responseHeaders, response, error, false);
    EXPECT_EQ(lastRequest(server).method, "PATCH");
    EXPECT_EQ(lastRequest(server).body, "patched");
    client.deleteM(url("/echo"), "u", "p", headers, response, error, false);
    EXPECT_EQ(lastRequest(server).method, "DELETE");
    client.downloadString(url("/bytes/3000"), response, error, false);
    EXPECT_EQ(response, pattern(3000));
    EXPECT_EQ(error, "");
}

TEST_P(BlockingVerbs, HttpErrorsAreAnswersNotFailures) {
    std::string response, error;
    int code = 0;
    client.get(url("/status/404"), "", "", headers, response, &code, error, false);
    EXPECT_EQ(code, 404);
    EXPECT_EQ(response, "status 404");
    EXPECT_EQ(error, "");
    client.get(url("/status/500"), "", "", headers, response, &code, error, false);
    EXPECT_EQ(code, 500);
}

// Each transfer may get a new easy handle; the origin's open connection must
// serve the next request all the same.
TEST_P(BlockingVerbs, AnOriginKeepsItsConnectionBetweenRequests) {
    std::string response, error;
    int code = 0;
    client.get(url("/echo"), "", "", headers, response, &code, error, false);
    const int firstPort = lastRequest(server).remote_port;
    client.get(url("/echo"), "", "", headers, response, &code, error, false);
    EXPECT_EQ(lastRequest(server).remote_port, firstPort);
}

TEST(BlockingVerbFailures, TransferFailureIsReportedOnceWithoutRetry) {
    LogCapture log;
    WebClient client;
    std::vector<std::string> none;
    std::string response, error;
    int code = -1;
    client.get("http://127.0.0.1:1/refused", "", "", none, response, &code, error, false);
    EXPECT_EQ(code, 0);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(log.count("CheckStatus curl error : 7"), 1u);
    EXPECT_EQ(log.countContaining("[UpdateCaFile]"), 0u) << "no refresh without useSsl";
}

TEST(BlockingVerbFailures, WaitLimitIsReportedOnlyInTheLog) {
    TestServer server;
    LogCapture log;
    WebClient client;
    client.requestTimeoutMs = 1000;
    std::vector<std::string> none;
    std::string response, error = "untouched";
    int code = -1;
    const auto start = std::chrono::steady_clock::now();
    client.get(serverUrl(server, "127.0.0.1", "/stall?ms=5000"), "", "", none, response, &code, error, false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
    EXPECT_EQ(log.count("[get] exception Operation timed out"), 1u);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(fetchStatus(serverUrl(server, "127.0.0.1", "/status/200")), 200);
}

TEST(BlockingVerbFailures, CheckStatusClassifiesLibcurlCodes) {
    LogCapture log;
    WebClient client;
    WebRequest request("http://0.0.0.0/x", "GET", false);  // inert: result stays as set
    const std::vector<std::pair<CURLcode, int>> cases = {
        {CURLE_OK, 0}, {CURLE_PEER_FAILED_VERIFICATION, 2}, {CURLE_SSL_CACERT_BADFILE, 2},
        {CURLE_COULDNT_CONNECT, 1}, {CURLE_WRITE_ERROR, 1}};
    for (const auto& c : cases) {
        request.impl_->result = c.first;
        EXPECT_EQ(client.CheckStatus(request), c.second) << c.first;
    }
    EXPECT_EQ(log.count("Peer certificate cannot be authenticated with given CA certificates"), 1u);
    EXPECT_EQ(log.count("CheckStatus curl error: 77 message: Problem with reading the SSL CA cert"), 1u);
    EXPECT_EQ(log.count("CheckStatus curl error : 23"), 1u);
}

TEST(Exceptions, InnerExceptionIsOwnedAndCopiedDeeply) {
    WebException outer("outer", new Exception("inner", nullptr));
    WebException copy(outer);
    EXPECT_STREQ(copy.what(), "outer");
    ASSERT_NE(copy.getInner(), nullptr);
    EXPECT_NE(copy.getInner(), outer.getInner());
    EXPECT_STREQ(copy.getInner()->what(), "inner");
    try {
        throw WebException("thrown", nullptr);
    } catch (const Exception& caught) {
        EXPECT_STREQ(caught.what(), "thrown");
    }
}
