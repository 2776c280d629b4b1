// Misbehaving servers: every failure comes back as a libcurl code and error
// text, nothing hangs, and the origin works again afterwards.
#include <gtest/gtest.h>

#include <unistd.h>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/raw_server.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "webclient/easy_web_client.h"
#include "webclient/web_client.h"

namespace {

struct Outcome {
    int code = -1;
    std::string body;
    std::string error;
};

Outcome get(const std::string& url, bool useSsl = false) {
    WebClient client;
    Outcome out;
    client.get(url, "", "", noHeaders, out.body, &out.code, out.error, useSsl);
    return out;
}

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

// Each connection gets the fault once; later connections a good answer,
// so the test can show the origin recovers.
RawServer::Script faultThenGood(std::function<void(int)> fault) {
    auto faulted = std::make_shared<std::atomic<bool>>(false);
    return [fault, faulted](int fd) {
        RawServer::readRequestHead(fd);
        faulted->exchange(true) ? RawServer::sendAll(fd, kOk) : fault(fd);
    };
}

struct Fault {
    const char* name;
    std::function<void(int)> act;
    CURLcode expected;
};

}  // namespace

class Faults : public ::testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(BothPaths, Faults, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(Faults, EachFaultIsReportedOnceAndTheOriginRecovers) {
    using R = RawServer;
    const std::vector<Fault> faults = {
        {"reset mid-headers", [](int fd) { R::sendAll(fd, "HTTP/1.1 200 OK\r\nContent-"); R::resetConnection(fd); },
         CURLE_RECV_ERROR},
        {"close mid-body with length", [](int fd) { R::sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nabc"); },
         CURLE_PARTIAL_FILE},
        {"close mid-body chunked",
         [](int fd) { R::sendAll(fd, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100\r\nabc"); },
         CURLE_PARTIAL_FILE},
        {"garbage status line", [](int fd) { R::sendAll(fd, "GARBAGE\r\n\r\n"); }, CURLE_UNSUPPORTED_PROTOCOL},
        // libcurl refuses a header line over 100 KiB (as "Out of memory"):
        // nothing may overflow, and the status line's 200 must not pass for
        // success.
        {"oversized header line",
         [](int fd) { R::sendAll(fd, "HTTP/1.1 200 OK\r\nX-Big: " + std::string(400 * 1024, 'x') + "\r\n\r\n"); },
         CURLE_OUT_OF_MEMORY},
        {"empty reply", [](int) {}, CURLE_GOT_NOTHING},
    };
    for (const auto& fault : faults) {
        LogCapture log;
        RawServer server(faultThenGood(fault.act));
        const Outcome failed = get(server.url(GetParam(), "/x"));
        EXPECT_FALSE(failed.error.empty()) << fault.name;
        EXPECT_EQ(log.count("CheckStatus curl error : " + std::to_string(fault.expected)), 1u) << fault.name;
        EXPECT_EQ(log.countContaining("[UpdateCaFile]"), 0u) << fault.name << ": no refresh without useSsl";
        const Outcome next = get(server.url(GetParam(), "/x"));
        EXPECT_EQ(next.code, 200) << fault.name << ": the origin works again";
        EXPECT_EQ(next.body, "ok") << fault.name;
    }
}

TEST(Faults, RefusedConnectionOtherSchemeAndRedirectLoopEndWithAnError) {
    LogCapture log;
    EXPECT_FALSE(get("http://127.0.0.1:1/").error.empty());
    EXPECT_FALSE(get("file://localhost/etc/hostname").error.empty()) << "HTTP and HTTPS only";
    TestServer server("127.0.0.1", [](httplib::Server& s) {
        s.Get("/loop", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop"); });
    });
    for (const char* host : {"127.0.0.1", "localhost"}) EXPECT_FALSE(get(server.url(host, "/loop")).error.empty());
    EXPECT_EQ(log.count("CheckStatus curl error : 7"), 1u);
    EXPECT_EQ(log.count("CheckStatus curl error : 1"), 1u);
    EXPECT_EQ(log.count("CheckStatus curl error : 47"), 2u) << "libcurl 7.88 sets no limit of its own";
}

// libcurl before 8.1.0 kept a reused handle pointing at the previous
// answer's freed headers, which an answer opening with a folded header line
// then read and wrote. Under ASan this fails on such a libcurl unless each
// transfer gets a handle of its own.
TEST_P(Faults, FoldedFirstHeaderLineAfterAnEarlierAnswer) {
    RawServer server([](int fd) {
        const bool folded = RawServer::readRequestHead(fd).find("/folded") != std::string::npos;
        RawServer::sendAll(fd, std::string("HTTP/1.1 200 OK\r\n") + (folded ? "  folded: b\r\n" : "X-First: a\r\n") +
                                   "Connection: close\r\nContent-Length: 2\r\n\r\nok");
    });
    const std::string plain = server.url(GetParam(), "/plain"), folded = server.url(GetParam(), "/folded");
    EXPECT_EQ(get(plain).code, 200);
    const Outcome afterFold = get(folded);
    EXPECT_EQ(get(plain).code, 200) << "after: " << afterFold.error;

    EasyWebClient easy;
    std::string headers, body;
    EXPECT_EQ(easy.get(plain, "", "", "", noHeaders, headers, body), 200);
    (void)easy.get(folded, "", "", "", noHeaders, headers, body);
    EXPECT_EQ(easy.get(plain, "", "", "", noHeaders, headers, body), 200);
}

TEST_P(Faults, ServerClosingDuringUploadRaisesNoSigpipe) {
    RawServer server([](int fd) {
        RawServer::readRequestHead(fd);
        RawServer::resetConnection(fd);
    });
    WebClient client;
    const std::string body(8 * 1024 * 1024, 'b');  // far more than socket buffers hold
    std::string response, error;
    int code = -1;
    client.post(server.url(GetParam(), "/upload"), "u", "p", body, noHeaders, response, code, error, false);
    EXPECT_FALSE(error.empty()) << "the process is still alive: no SIGPIPE reached it";
}

TEST(TlsFaults, HandshakeAbortedByThePeer) {
    TrustStoreSandbox sandbox;
    sandbox.store().ca_file = TestPki::instance().file("ca.pem");
    LogCapture log;
    RawServer server([](int fd) {
        char hello[512];
        (void)!read(fd, hello, sizeof hello);  // the ClientHello, then hang up
    }, "127.0.0.2");
    const Outcome out = get(server.url("127.0.0.2", "/x", "https"), true);
    EXPECT_FALSE(out.error.empty());
    EXPECT_EQ(log.count("CheckStatus curl error : 35"), 1u) << "one attempt: no refresh for a non-trust failure";
}
