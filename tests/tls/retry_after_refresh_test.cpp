// The blocking verbs' retry after a trust failure, end to end: real signed
// bundles from a loopback server, the project's extraction script, a host
// handler, and a second attempt that verifies against the new CA file.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "webclient/web_client.h"

class RetryAfterRefresh : public ::testing::TestWithParam<const char*> {
protected:
    TrustStoreSandbox sandbox;
    TestPki& pki = TestPki::instance();
};

INSTANTIATE_TEST_SUITE_P(BothPaths, RetryAfterRefresh, ::testing::Values("127.0.0.2", "localhost"));

TEST_P(RetryAfterRefresh, FirstAttemptFailsThenRefreshedBundleVerifies) {
    const std::string host = GetParam();
    TestServer server(pki.tls("server"), host == "localhost" ? "127.0.0.1" : host);
    // The first refresh (run by the first attempt's TLS set-up, as no CA file
    // exists yet) installs a bundle without our root; the handler then swaps
    // in the good bundle for the refresh that the failed attempt asks for.
    sandbox.serveBundle(sandbox.makeBundle({pki.file("other_ca.pem")}));
    const std::string goodBundle = sandbox.makeBundle({pki.file("other_ca.pem"), pki.file("ca.pem")});
    std::atomic<int> handled{0};
    registerCAhandler([&](const char* pem) {
        EXPECT_EQ(std::string(pem), sandbox.store().ca_file);
        if (++handled == 1) sandbox.serveBundle(goodBundle);
        return 0;
    });
    LogCapture log;
    WebClient client;
    std::vector<std::string> none;
    std::string response = "stale", error;
    int code = 0;
    client.get(server.url(host, "/echo"), "u", "p", none, response, &code, error, true);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(response.rfind("GET /echo", 0), 0u) << "only the second attempt's body";
    EXPECT_FALSE(error.empty()) << "the first attempt's error text stays";
    EXPECT_EQ(handled, 2);
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_FALSE(sandbox.store().use_default_bundle);
    EXPECT_EQ(log.count("Peer certificate cannot be authenticated with given CA certificates"), 1u);
    EXPECT_EQ(log.count("[UpdateCaFile] ready to update CA bundle"), 1u);
}

TEST(RefreshVersusSecureRequest, RefreshWaitsForTheHolderToGo) {
    TrustStoreSandbox sandbox;
    TestPki& pki = TestPki::instance();
    sandbox.store().ca_file = pki.file("ca.pem");
    sandbox.serveBundle(sandbox.makeBundle({pki.file("ca.pem")}));
    TestServer server(pki.tls("server"), "127.0.0.2");
    std::future<void> refresh;
    {
        WebRequest request(server.url("127.0.0.2", "/echo"), "GET", true);
        std::vector<std::string> none;
        request.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
        ASSERT_EQ(request.wait(10000), 0);
        refresh = std::async(std::launch::async, [] { refreshCaBundle(); });
        EXPECT_EQ(refresh.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout)
            << "the CA file was replaced while a secure request held it";
    }
    EXPECT_EQ(refresh.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(sandbox.status(), 2);
}
