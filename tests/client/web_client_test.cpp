// WebClient's blocking verbs: what only this layer adds (outputs, connection reuse,
// wait limits). What each verb sends is checked once,
// through the exported functions (tests/capi).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/web_client.h"

namespace {

// Unix-domain sockets open in this process (libcurl's wake-up pairs).
size_t localSockets() {
    size_t count = 0;
    for (const auto& open : openDescriptors()) {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        const bool named = getsockname(open.first, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        count += named && address.ss_family == AF_UNIX;
    }
    return count;
}

}  // namespace

class BlockingVerbs : public ::testing::TestWithParam<const char*> {
protected:
    TestServer server;
    WebClient client;
    std::string url(const std::string& path) { return server.url(GetParam(), path); }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, BlockingVerbs, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(BlockingVerbs, HttpErrorsAreAnswersAndHeaderTextIsAppended) {
    std::string responseHeaders = "kept:", response = "stale", error = "caller's";
    int code = -1;
    client.get(url("/status/404"), "", "", "", noHeaders, responseHeaders, response, error, &code, false);
    EXPECT_EQ(code, 404);
    EXPECT_EQ(response, "status 404") << "the body replaces what was there";
    EXPECT_EQ(responseHeaders.rfind("kept:HTTP/1.1 404", 0), 0u) << "header text is appended, not cleared";
    EXPECT_EQ(error, "caller's") << "no transfer failure: the caller's error text stays";
    client.downloadString(url("/bytes/300000"), response, error, false);
    EXPECT_EQ(response, pattern(300000));
}

// Each transfer may get a new easy handle; the origin's open connection must
// serve the next request all the same, and no program the host starts may
// inherit it.
TEST_P(BlockingVerbs, AnOriginKeepsItsConnectionBetweenRequests) {
    std::string response, error;
    client.get(url("/echo"), noHeaders, response, error, false);
    const int firstPort = lastRequest(server).remote_port;
    client.get(url("/echo"), noHeaders, response, error, false);
    EXPECT_EQ(lastRequest(server).remote_port, firstPort);
    int kept = -1;
    for (const auto& open : openDescriptors()) {
        sockaddr_in local{};
        socklen_t length = sizeof local;
        if (getsockname(open.first, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
            local.sin_family == AF_INET && ntohs(local.sin_port) == firstPort) {
            kept = open.first;
        }
    }
    ASSERT_NE(kept, -1) << "the kept connection's descriptor";
    EXPECT_NE(fcntl(kept, F_GETFD) & FD_CLOEXEC, 0);
    // Between requests an idle origin keeps no more than that connection, no
    // socket pair of libcurl's: ten more (the user name is part of the pool's
    // key) add none.
    const size_t pairs = localSockets();
    for (int user = 0; user < 10; ++user) {
        client.get(url("/echo").insert(7, "u" + std::to_string(user) + "@"), noHeaders, response, error, false);
        ASSERT_EQ(lastRequest(server).path, "/echo");
    }
    EXPECT_EQ(localSockets(), pairs);
}

// libcurl takes C strings: a NUL would send the text before it as if it
// were all, a different request from the one asked for. And it refuses a
// text over 8 MB, after which the request would go out without it.
TEST_P(BlockingVerbs, TextLibcurlWouldCutOrDropIsRefused) {
    const std::string nul("\0", 1);
    std::map<std::string, std::string> fields = {{"f", "1" + nul + "2"}};
    TempFile file("data");
    std::string responseHeaders, response, error;
    int code = 0;
    EXPECT_THROW(client.get(url("/echo" + nul + "/x"), noHeaders, response, error, false), WebException);
    EXPECT_THROW(client.post(url("/echo"), "u", "pw" + nul + "rest", "x", noHeaders, response, error, false),
                 WebException);
    EXPECT_THROW(client.uploadByPost(url("/echo"), "", "", noHeaders, "f", file.path() + nul + ".bak", response, &code,
                                     error, false),
                 WebException);
    EXPECT_THROW(client.uploadByPost(url("/echo"), "", "", noHeaders, fields, "f", file.path(), responseHeaders,
                                     response, error, false),
                 WebException);
    // Even at the very end: "admin\0" + ":" + "pw" would send no password.
    EXPECT_THROW(client.post(url("/echo"), "admin" + nul, "pw", "x", noHeaders, response, error, false), WebException);
    const std::string huge(9u << 20, 'p');
    const struct {
        std::string url, password;
        const char* named;  // the exception says what is too long
    } oversized[] = {{url("/echo"), huge, "password"}, {url("/echo?" + huge), "pw", "URL"}};
    for (const auto& c : oversized) {
        try {
            client.post(c.url, "u", c.password, "x", noHeaders, response, error, false);
            ADD_FAILURE() << c.named;
        } catch (const WebException& refused) {
            EXPECT_NE(std::string(refused.what()).find(c.named), std::string::npos) << refused.what();
        }
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST(BlockingVerbFailures, WaitLimitIsReportedOnlyInTheLog) {
    TestServer server;
    LogCapture log;
    WebClient client;
    client.requestTimeoutMs = 1000;
    std::string response, error = "untouched";
    int code = -1;
    const auto start = std::chrono::steady_clock::now();
    client.get(server.url("127.0.0.1", "/stall?ms=5000"), "", "", noHeaders, response, &code, error, false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
    EXPECT_EQ(log.count("[get] exception Operation timed out"), 1u);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(completeGet(server.url("127.0.0.1", "/status/200")), 200) << "the origin works again";
}
