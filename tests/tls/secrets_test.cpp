// Secrets never reach the log, and do not follow a redirect to another
// origin.
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/trust_sandbox.h"
#include "webclient/web_client.h"

namespace {

const char kSentinel[] = "S3ntinel";

}  // namespace

TEST(Secrets, VerboseOutputOfSecureRequestsIsMasked) {
    TrustStoreSandbox sandbox;
    sandbox.store().ca_file = TestPki::instance().file("ca.pem");
    TestServer server(TestPki::instance().tls("server"), "127.0.0.2");
    LogCapture log;
    WebClient client;
    std::vector<std::string> headers = {"Authorization: Bearer S3ntinel-token"};
    std::string responseHeaders, body, error;
    int code = 0;
    client.get(server.url("127.0.0.2", "/echo?password=S3ntinel-q&client_secret=S3ntinel-c"), "admin",
               "S3ntinel-pw", "sid=S3ntinel-ck", headers, responseHeaders, body, error, &code, true);
    ASSERT_EQ(code, 200);
    EXPECT_EQ(log.countContaining(kSentinel), 0u);
    EXPECT_GE(log.count("> Authorization: ***"), 1u) << "libcurl's verbose lines go through the logger";
    EXPECT_GE(log.count("> Cookie: ***"), 1u);
    EXPECT_GE(log.countContaining("> GET /echo?password=***&client_secret=***"), 1u);
}

TEST(Secrets, CredentialsAndCookiesDoNotFollowARedirectToAnotherOrigin) {
    TestServer target;
    TestServer origin("127.0.0.1", [&](httplib::Server& server) {
        server.Get("/away", [&](const httplib::Request&, httplib::Response& res) {
            res.set_redirect(target.url("127.0.0.1", "/echo"));
        });
    });
    WebClient client;
    std::vector<std::string> headers = {"Authorization: Bearer tok", "X-Custom: follows"};
    std::string responseHeaders, body, error;
    int code = 0;
    for (const char* host : {"127.0.0.1", "localhost"}) {
        client.get(origin.url(host, "/away"), "admin", "pw", "sid=1", headers, responseHeaders, body, error, &code,
                   false);
        ASSERT_EQ(code, 200) << host;
        RecordedRequest seen = lastRequest(target);
        EXPECT_EQ(headerOf(seen, "Authorization"), "") << host;
        EXPECT_EQ(headerOf(seen, "Cookie"), "") << host;
        EXPECT_EQ(headerOf(seen, "X-Custom"), "follows") << "other custom header lines do follow";
    }
}
