// Verified HTTPS and secrets. Requests to exactly https://127.0.0.1 never
// verify, so verification is exercised on 127.0.0.2 (transfer thread) and
// localhost (caller's thread).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "engine/verbose_log.h"
#include "engine/web_request_impl.h"
#include "support/log_capture.h"
#include "support/pki.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "webclient/web_client.h"

namespace {

struct Tls : ::testing::Test {
    TrustStoreSandbox sandbox;
    TestPki& pki = TestPki::instance();
    int port = 0;  // every server of a test takes over the same port

    Tls() { sandbox.store().ca_file = pki.file("ca.pem"); }
    // localhost is served on 127.0.0.1, other hosts on themselves.
    CURLcode get(const std::string& certificate, const std::string& host, std::string* error = nullptr) {
        TestServer server(pki.tls(certificate), host == "localhost" ? "127.0.0.1" : host, {}, port);
        port = server.port();
        // Every log line is checked for secrets: the query's password must show masked.
        WebRequest request(server.url(host, "/echo?password=hunter2"), "GET", true);
        const CURLcode result = resultOfGet(request);
        if (error) *error = request.impl->error_buffer;
        return result;
    }
};

struct TlsVerify : Tls, ::testing::WithParamInterface<const char*> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(BothPaths, TlsVerify, ::testing::Values("127.0.0.2", "localhost"));

// The pool keeps one easy handle per origin, and every peer here takes over
// the same origin: a failed handshake must leave nothing behind that lets a
// later peer skip verification, or that stops a good peer being accepted.
TEST_P(TlsVerify, AcceptsOnlyPeersThatVerify) {
    const std::string noNameMatch =
        "SSL: no alternative certificate subject name matches target host name '" + std::string(GetParam()) + "'";
    const CURLcode rejected = CURLE_PEER_FAILED_VERIFICATION;
    const struct {
        const char* certificate;
        CURLcode result;
        std::string evidence;  // a log line fragment or the libcurl error text
    } cases[] = {
        // The CN never names the host: a matching SAN suffices.
        {"server", CURLE_OK, ""},
        {"server_wronghost", rejected, noNameMatch},
        {"server_noeku", CURLE_OK, ""},
        {"server_nulsan", rejected, noNameMatch},
        {"server_expired", rejected, "ok=0 depth=0 ctx->error=10:certificate has expired"},
        {"server_chain", CURLE_OK, ""},
        {"server_untrusted", rejected, "ok=0 depth=0 ctx->error=20:unable to get local issuer certificate"},
        {"server_chain_clientauth", rejected, "ok=0 depth=1 ctx->error=26:unsuitable certificate purpose"},
        // OpenSSL lets the SGC purposes stand in for serverAuth; we do not.
        {"server_sgc", rejected, "ExtendedKeyUsage is NOT OK"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        std::string error;
        EXPECT_EQ(get(c.certificate, GetParam(), &error), c.result) << c.certificate << ": " << error;
        EXPECT_TRUE(c.evidence.empty() || log.countContaining(c.evidence) > 0 || error == c.evidence)
            << c.certificate << ": " << error;
    }
}

TEST_F(Tls, DataDirectoryRootIsTrustedAndLocalEndpointIsNotVerified) {
    // A root certificate in the host's data directory is trusted besides
    // the CA file; one that does not load stops the connection.
    TempFile marker;
    const std::string appData = marker.path() + ".d";
    setenv("WEBCLIENT_APPDATA_DIR", appData.c_str(), 1);
    writeFileCreatingDirs(appData + "/certs/rootCA.pem", readWholeFile(pki.file("ca.pem")));
    sandbox.store().ca_file = pki.file("other_ca.pem");
    EXPECT_EQ(get("server", "127.0.0.2"), CURLE_OK);
    writeFileCreatingDirs(appData + "/certs/rootCA.pem", "not a certificate");
    EXPECT_EQ(get("server", "127.0.0.2"), CURLE_ABORTED_BY_CALLBACK);
    unsetenv("WEBCLIENT_APPDATA_DIR");
    std::filesystem::remove_all(appData);

    EXPECT_EQ(get("server_expired", "127.0.0.1"), CURLE_OK);
    // Only the host counts, not a user name that looks like it.
    TestServer peer(pki.tls("server_expired"), "127.0.0.2");
    WebRequest request("https://127.0.0.1:pw@127.0.0.2:" + std::to_string(peer.port()) + "/echo", "GET", true);
    EXPECT_EQ(resultOfGet(request), CURLE_PEER_FAILED_VERIFICATION);
    for (const char* lookalike : {"https://127.0.0.1.example/", "https://127.0.0.10/"}) {
        EXPECT_TRUE(WebRequest(lookalike, "GET", true).use_ssl) << lookalike;
    }
}

TEST_F(Tls, SecureRequestHoldsTheCaFileUntilDestroyed) {
    TestServer server(pki.tls("server"), "127.0.0.2");
    sandbox.serveBundle(sandbox.makeBundle({pki.file("ca.pem")}));
    {
        WebRequest request(server.url("127.0.0.2", "/echo"), "GET", true);
        resultOfGet(request);
        request.abort();
        request.getAsync(noHeaders, ignore, {});
        EXPECT_EQ(request.wait(10000), 0);
    }
    ASSERT_FALSE(sandbox.caFileHeld()) << "a second verb on one request left a hold behind";
    std::future<void> refresh;
    {
        WebRequest request(server.url("127.0.0.2", "/echo"), "GET", true);
        EXPECT_FALSE(sandbox.caFileHeld()) << "no hold before the verb";
        resultOfGet(request);
        refresh = std::async(std::launch::async, [] { refreshCaBundle(); });
        EXPECT_EQ(refresh.wait_for(std::chrono::seconds(1)), std::future_status::timeout)
            << "the CA file was replaced under a secure request";
    }
    EXPECT_EQ(refresh.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_FALSE(sandbox.caFileHeld());
}

// A refresh waits for every read hold on the CA file. It must not wait for
// a hold of its own thread, nor inside a transfer callback, nor (with the
// file gone) for a thread that waits for the handle this request holds.
TEST_F(Tls, RefreshesThatWouldWaitForTheirOwnThreadGiveUp) {
    TestServer two(pki.tls("server"), "127.0.0.2");
    TestServer three(pki.tls("server"), "127.0.0.3");
    sandbox.serveBundle(sandbox.makeBundle({pki.file("ca.pem")}));
    LogCapture log;
    sandbox.store().ca_file = "/nonexistent/ca.pem";
    auto oneThread = std::async(std::launch::async, [&] {
        {
            WebRequest kept(two.url("127.0.0.2", "/echo"), "GET", true);
            EXPECT_EQ(resultOfGet(kept), CURLE_OK) << "the first refresh installs the bundle";
            std::filesystem::remove(sandbox.store().ca_file);
            WebRequest other(three.url("127.0.0.3", "/echo"), "GET", true);
            EXPECT_NE(resultOfGet(other), CURLE_OK);
        }
        refreshCaBundle();  // both holds are given back: this one runs
    });
    ASSERT_EQ(oneThread.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(log.count("[DownloadTask] this thread still holds the CA file; no refresh"), 1u);
    EXPECT_EQ(sandbox.downloadsSeen(), 2);

    // The transfer thread holds the multi lock that the request's
    // destructor needs, while the refresh would wait for that request.
    auto inCallback = std::async(std::launch::async, [&] {
        WebRequest request(two.url("127.0.0.2", "/echo"), "GET", true);
        request.getAsync(noHeaders, [](std::shared_ptr<DataReceivedEventArgs>) { refreshCaBundle(); }, {});
        request.wait(10000);
        EXPECT_EQ(request.impl->result, CURLE_OK);
    });
    ASSERT_EQ(inCallback.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(log.count("[DownloadTask] called inside a transfer callback; no refresh"), 1u);

    sandbox.store().ca_file = pki.file("ca.pem");
    std::promise<void> holding, refresherHasHandle;
    auto reader = std::async(std::launch::async, [&] {
        WebRequest kept(three.url("127.0.0.3", "/echo"), "GET", true);
        EXPECT_EQ(resultOfGet(kept), CURLE_OK);
        holding.set_value();
        refresherHasHandle.get_future().wait();
        WebRequest sameOrigin(two.url("127.0.0.2", "/echo"), "GET", true);  // waits for the handle
        resultOfGet(sameOrigin);
    });
    holding.get_future().wait();
    sandbox.store().ca_file = "/nonexistent/ca.pem";
    auto refresher = std::async(std::launch::async, [&] {
        WebRequest request(two.url("127.0.0.2", "/echo"), "GET", true);
        refresherHasHandle.set_value();
        EXPECT_NE(resultOfGet(request), CURLE_OK);
    });
    ASSERT_EQ(refresher.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    ASSERT_EQ(reader.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(log.count(" failed to extract CA: the CA file stayed in use for 2000 ms"), 1u);
    EXPECT_EQ(sandbox.status(), 3);
    EXPECT_FALSE(sandbox.caFileHeld());
}

// The handler runs while its thread replaces the CA file, so it must not
// call back; a secure request made from there anyway gets no CA file and
// fails, instead of a read hold that was never taken and whose "release"
// would free the refresh's write lock.
TEST_F(Tls, SecureRequestFromTheCaHandlerFailsAndLeavesTheLockIntact) {
    TestServer numeric(pki.tls("server"), "127.0.0.2"), named(pki.tls("server"), "127.0.0.1");
    sandbox.serveBundle(sandbox.makeBundle({pki.file("ca.pem")}));
    LogCapture log;
    std::vector<int> codesInHandler;
    registerCAhandler([&](const char*) {
        for (const std::string& url : {numeric.url("127.0.0.2", "/echo"), named.url("localhost", "/echo")}) {
            WebClient client;
            std::string body, error;
            int code = 0;
            client.get(url, "", "", noHeaders, body, &code, error, true);
            codesInHandler.push_back(code);
        }
        refreshCaBundleOnFailure();  // would wait on the status mutex the handler's thread holds
        return 0;
    });
    auto refresh = std::async(std::launch::async, [] { refreshCaBundle(); });
    ASSERT_EQ(refresh.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(codesInHandler, std::vector<int>(2, 0)) << "no answer from either path";
    EXPECT_GE(log.count(" cannot hold the CA file: this thread is replacing it"), 2u);
    EXPECT_GE(log.count("[DownloadTask] called while this thread replaces the CA file; no refresh"), 3u);
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_FALSE(sandbox.caFileHeld());
    registerCAhandler({});
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_EQ(get("server", "127.0.0.2"), CURLE_OK);
}

TEST_P(TlsVerify, FirstAttemptFailsThenRefreshedBundleVerifies) {
    const std::string host = GetParam();
    const std::string otherBundle = sandbox.makeBundle({pki.file("other_ca.pem")});
    const std::string goodBundle = sandbox.makeBundle({pki.file("other_ca.pem"), pki.file("ca.pem")});
    std::atomic<int> handled{0};
    registerCAhandler([&](const char*) {
        if (++handled == 1) sandbox.serveBundle(goodBundle);
        return 0;
    });
    WebClient client;
    for (const bool streamed : {false, true}) {
        // The first refresh (run by the first attempt's TLS set-up, as there
        // is no CA file) installs a bundle without our root; the handler then
        // swaps in the good bundle for the refresh the failed attempt asks for.
        TestServer server(pki.tls("server"), host == "localhost" ? "127.0.0.1" : host);
        sandbox.store().ca_file.clear();
        sandbox.serveBundle(otherBundle);
        handled = 0;
        std::string response = "stale", error;
        int code = 0;
        if (streamed) {
            TempFile out;
            download_param param;
            param.url = server.url(host, "/echo");
            error = client.downloadStream(&param, openForWriting(out.path()), &code, true);
            response = readWholeFile(out.path());
        } else {
            client.get(server.url(host, "/echo"), "u", "p", noHeaders, response, &code, error, true);
        }
        EXPECT_EQ(code, 200) << streamed;
        EXPECT_EQ(response.rfind("GET /echo", 0), 0u) << "only the second attempt's body";
        EXPECT_FALSE(error.empty()) << "the first attempt's error text stays";
        EXPECT_EQ(handled, 2) << streamed;
        EXPECT_EQ(sandbox.status(), 2);
    }
}

// A kept connection was verified against the CA file as it was then. Once
// the file is replaced, the next request must verify the peer again, also
// when the change is some seconds old.
TEST_P(TlsVerify, AReplacedCaFileIsCheckedOnTheNextRequest) {
    const std::string host = GetParam();
    // Connections stay open for longer than the wait below.
    const auto keepConnections = [](httplib::Server& s) { s.set_keep_alive_timeout(6); };
    TestServer server(pki.tls("server"), host == "localhost" ? "127.0.0.1" : host, keepConnections);
    TempFile caFile;
    sandbox.store().ca_file = caFile.path();
    // Written now, or dated back so that every connection is newer.
    const auto replaceCaFile = [&](const char* name, bool datedBack) {
        std::ofstream(caFile.path(), std::ios::trunc) << readWholeFile(pki.file(name));
        const timespec times[2] = {{0, UTIME_OMIT}, {std::time(nullptr) - 60, 0}};
        if (datedBack) {
            ASSERT_EQ(utimensat(AT_FDCWD, caFile.path().c_str(), times, 0), 0);
        }
    };
    const auto get = [&] {
        WebRequest request(server.url(host, "/echo"), "GET", true);
        return resultOfGet(request);
    };
    replaceCaFile("ca.pem", true);
    LogCapture log;
    EXPECT_EQ(get(), CURLE_OK);
    EXPECT_EQ(get(), CURLE_OK);
    EXPECT_EQ(log.countContaining("depth=0"), 1u) << "a connection newer than the CA file is reused";
    replaceCaFile("other_ca.pem", false);
    EXPECT_EQ(get(), CURLE_PEER_FAILED_VERIFICATION) << "just replaced";
    replaceCaFile("ca.pem", true);
    EXPECT_EQ(get(), CURLE_OK);
    replaceCaFile("other_ca.pem", false);
    // Past the seconds in which no connection is reused at all.
    std::this_thread::sleep_for(std::chrono::milliseconds(4200));
    EXPECT_EQ(get(), CURLE_PEER_FAILED_VERIFICATION) << "replaced seconds ago";
}

TEST_F(Tls, SecretsInVerboseOutputAreMasked) {
    TestServer server(pki.tls("server"), "127.0.0.2");
    LogCapture log;
    WebClient client;
    std::vector<std::string> headers = {"Authorization: Bearer S3ntinel-token", "X-Auth-Token: S3ntinel-xt",
                                        "X-API-Key: S3ntinel-k"};
    std::string responseHeaders, body, error;
    int code = 0;
    std::string url = server.url("127.0.0.2", "/echo?password=S3ntinel-q&client_secret=S3ntinel-c");
    url.insert(url.find("127.0.0.2"), "admin:S3ntinel-u@");
    client.get(url, "admin", "S3ntinel-pw", "sid=S3ntinel-ck", headers, responseHeaders, body, error, &code, true);
    ASSERT_EQ(code, 200);
    EXPECT_EQ(log.countContaining("S3ntinel"), 0u);
    // libcurl's verbose lines do reach the log, masked.
    EXPECT_GE(log.count("> Authorization: ***"), 1u);
    EXPECT_GE(log.count("> X-API-Key: ***"), 1u);
    EXPECT_GE(log.countContaining("> GET /echo?password=***&client_secret=***"), 1u);
}

// Forms the servers here cannot provoke, fed in as libcurl writes them:
// over HTTP/2 each request header is also a bracketed text line (7.88
// "h2h3 [...]", 8.x "[HTTP/2] [1] [...]"), and a caller's header line may
// have a blank before its colon, which libcurl sends as written.
TEST(Secrets, HeaderLinesInEveryVerboseFormAreMasked) {
    LogCapture log;
    std::string text =
        "h2h3 [authorization: Basic S3ntinel-b]\n[HTTP/2] [1] [cookie: sid=[S3ntinel-c]]\n"
        "h2h3 [x-auth-token: S3ntinel-t]\nh2h3 [:path: /p?password=S3ntinel-q]\nh2h3 [user-agent: kept]\n";
    logVerboseLine(nullptr, CURLINFO_TEXT, &text[0], text.size(), nullptr);
    std::string sent =
        "GET /?password=S3ntinel-g&r=[1:2] HTTP/1.1\r\nauthorization : Bearer S3ntinel-s\r\n Authorization: Bearer S3ntinel-l\r\n"
        "X-Credential: S3ntinel-x\r\nX Token: S3ntinel-w\r\nX T: S3ntinel-v HTTP/1.1\r\nAccept: */*\r\n\r\n";
    logVerboseLine(nullptr, CURLINFO_HEADER_OUT, &sent[0], sent.size(), nullptr);
    std::string received = "Set-Cookie: sid=S3ntinel-k\r\nX-Session-Id: S3ntinel-r\r\nX-Note: a\x1b[2K\rerror [18] forged\r\n";
    logVerboseLine(nullptr, CURLINFO_HEADER_IN, &received[0], received.size(), nullptr);
    EXPECT_EQ(log.countContaining("S3ntinel"), 0u);
    EXPECT_EQ(log.count("> authorization : ***"), 1u);
    EXPECT_EQ(log.count("> X-Credential: ***"), 1u) << "a request header may carry a secret under any name";
    EXPECT_EQ(log.count("> Accept: */*"), 1u);
    EXPECT_EQ(log.count("> GET /?password=***&r=[1: ***]"), 1u);
    EXPECT_EQ(log.count("< X-Note: a\\x1b[2K\\x0derror [18] forged"), 1u);
    EXPECT_EQ(log.count("* h2h3 [authorization: ***]"), 1u);
    EXPECT_EQ(log.count("* [HTTP/2] [1] [cookie: ***]"), 1u);
    EXPECT_EQ(log.count("* h2h3 [user-agent: kept]"), 1u) << "other headers stay readable";
}

// The cookie argument follows every hop, as libcurl's cookie option does: a
// device redirecting http to https on another port keeps its session.
TEST(Secrets, CredentialsDoNotFollowARedirectToAnotherOriginTheCookieDoes) {
    TestServer origin, target;
    WebClient client;
    std::vector<std::string> headers = {"Authorization: Bearer tok", "X-Custom: follows"};
    std::string responseHeaders, body, error;
    int code = 0;
    // Another port, then another host name.
    for (const char* host : {"127.0.0.1", "localhost"}) {
        client.get(origin.url(host, "/redirect?to=" + target.url("127.0.0.1", "/echo")), "admin", "pw", "sid=1",
                   headers, responseHeaders, body, error, &code, false);
        ASSERT_EQ(code, 200) << host;
        const RecordedRequest seen = lastRequest(target);
        EXPECT_EQ(headerOf(seen, "Authorization"), "") << host;
        EXPECT_EQ(headerOf(seen, "Cookie"), "sid=1") << host;
        EXPECT_EQ(headerOf(seen, "X-Custom"), "follows") << "other custom header lines do follow";
    }
}
