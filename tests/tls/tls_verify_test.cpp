// Verified HTTPS: which peers are accepted, where trusted CAs come from, and
// the CA-file read hold that a secure request keeps until it is destroyed.
// Requests to exactly https://127.0.0.1 never verify, so verification is
// exercised on 127.0.0.2 (transfer thread) and localhost (caller's thread).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "engine/web_request_impl.h"
#include "support/log_capture.h"
#include "support/pki.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "webclient/web_request.h"

namespace {

// 127.0.0.2 is served on 127.0.0.2; localhost on 127.0.0.1.
std::string bindAddressFor(const std::string& host) { return host == "localhost" ? "127.0.0.1" : host; }

CURLcode secureGet(const std::string& url, std::string* error = nullptr) {
    WebRequest request(url, "GET", true);
    std::vector<std::string> none;
    request.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    request.wait(10000);
    if (error) *error = request.impl_->error_buffer;
    return request.impl_->result;
}

bool fileLockIsReadHeld(CaBundleManager& store) {
    if (pthread_rwlock_trywrlock(&store.file_lock) == EBUSY) return true;
    pthread_rwlock_unlock(&store.file_lock);
    return false;
}

class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
    ~ScopedEnv() { unsetenv(name_); }

private:
    const char* name_;
};

}  // namespace

class TlsVerify : public ::testing::TestWithParam<const char*> {
protected:
    TrustStoreSandbox sandbox;
    TestPki& pki = TestPki::instance();

    void SetUp() override { sandbox.store().ca_file = pki.file("ca.pem"); }
    CURLcode getFrom(const std::string& certificate, std::string* error = nullptr) {
        TestServer server(pki.tls(certificate), bindAddressFor(GetParam()));
        return secureGet(server.url(GetParam(), "/echo"), error);
    }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, TlsVerify, ::testing::Values("127.0.0.2", "localhost"));

// The server certificates' CN never names the host: a matching SAN suffices.
TEST_P(TlsVerify, AcceptsServerAuthAndCertificatesWithoutUsageList) {
    EXPECT_EQ(getFrom("server"), CURLE_OK);
    EXPECT_EQ(getFrom("server_noeku"), CURLE_OK);
    EXPECT_EQ(getFrom("server_chain"), CURLE_OK);
}

TEST_P(TlsVerify, RejectsBadPeersAsVerificationFailures) {
    const std::string noNameMatch =
        "SSL: no alternative certificate subject name matches target host name '" + std::string(GetParam()) + "'";
    const struct {
        const char* certificate;
        std::string evidence;  // a log line fragment or the libcurl error text
    } cases[] = {
        {"server_wronghost", noNameMatch},
        {"server_nulsan", noNameMatch},
        {"server_expired", "ok=0 depth=0 ctx->error=10:certificate has expired"},
        {"server_notyet", "ok=0 depth=0 ctx->error=9:certificate is not yet valid"},
        {"server_untrusted", "ok=0 depth=0 ctx->error=20:unable to get local issuer certificate"},
        {"server_clientauth", "ok=0 depth=0 ctx->error=26:unsuitable certificate purpose"},
        {"server_chain_clientauth", "ok=0 depth=1 ctx->error=26:unsuitable certificate purpose"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        std::string error;
        EXPECT_EQ(getFrom(c.certificate, &error), CURLE_PEER_FAILED_VERIFICATION) << c.certificate;
        EXPECT_TRUE(log.contains(c.evidence) || error == c.evidence) << c.certificate << ": " << error;
    }
}

TEST_P(TlsVerify, OwnUsageCheckRejectsServerGatedCryptoOnly) {
    LogCapture log;
    EXPECT_EQ(getFrom("server_sgc"), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(log.count("ExtendedKeyUsage is NOT OK"), 1u);
    if (std::string(GetParam()) == "localhost") {
        EXPECT_EQ(log.count("SSL VERIFYRESULT=50:application verification failure"), 1u);
    }
}

TEST_P(TlsVerify, RootCertificateInAppDataIsTrustedOffTheSwitch) {
    TempFile marker;
    const std::string appData = marker.path() + ".d";
    writeFileCreatingDirs(appData + "/certs/rootCA.pem", readWholeFile(pki.file("ca.pem")));
    ScopedEnv dataDir("WEBCLIENT_APPDATA_DIR", appData);
    sandbox.store().ca_file = pki.file("other_ca.pem");
    EXPECT_EQ(getFrom("server"), CURLE_OK);

    LogCapture log;
    writeFileCreatingDirs(appData + "/certs/rootCA.pem", "not a certificate");
    EXPECT_EQ(getFrom("server"), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(log.count("sslctx_function failed to load " + appData + "/./certs/rootCA.pem"), 1u);
    (void)!std::system(("rm -rf '" + appData + "'").c_str());
}

TEST_P(TlsVerify, SwitchTrustsOnlyTheSystemDirectory) {
    LogCapture log;
    ScopedEnv platform("WEBCLIENT_PLATFORM", "switch linux-kv210-kv410_armhf build");
    EXPECT_EQ(getFrom("server"), CURLE_PEER_FAILED_VERIFICATION) << "the CA file is not loaded on the switch";
    EXPECT_EQ(log.count("sslctx_function load /etc/ssl/certs success"), 1u);
}

TEST_P(TlsVerify, SecureRequestHoldsTheCaFileUntilDestroyed) {
    TestServer server(pki.tls("server"), bindAddressFor(GetParam()));
    CaBundleManager& store = sandbox.store();
    {
        WebRequest request(server.url(GetParam(), "/echo"), "GET", true);
        EXPECT_FALSE(fileLockIsReadHeld(store)) << "no hold before the verb";
        std::vector<std::string> none;
        request.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
        request.wait(10000);
        EXPECT_TRUE(fileLockIsReadHeld(store));
        EXPECT_EQ(request.ca_file, pki.file("ca.pem"));
    }
    EXPECT_FALSE(fileLockIsReadHeld(store));
    {
        WebRequest neverStarted(server.url(GetParam(), "/echo"), "GET", true);
        WebRequest inert("https://0.0.0.0/x", "GET", true);
        std::vector<std::string> none;
        inert.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    }
    EXPECT_FALSE(fileLockIsReadHeld(store)) << "nothing released that was never taken";
}

// The pool keeps one easy handle per origin: a failed handshake must leave
// nothing behind that lets a later peer skip verification, or that stops a
// good peer from being accepted. (The CA file being replaced under a pooled
// handle is covered by the refresh-and-retry tests.)
TEST(PooledHandle, VerifiesEveryPeerThatTakesOverTheOrigin) {
    TrustStoreSandbox sandbox;
    TestPki& pki = TestPki::instance();
    sandbox.store().ca_file = pki.file("ca.pem");
    int port = 0;
    std::string url;
    const auto serveAndGet = [&](const char* certificate) {
        TestServer server(pki.tls(certificate), "127.0.0.2", port);
        port = server.port();
        url = server.url("127.0.0.2", "/echo");
        return secureGet(url);
    };
    EXPECT_EQ(serveAndGet("server_expired"), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(serveAndGet("server"), CURLE_OK);
    EXPECT_EQ(serveAndGet("server_untrusted"), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(serveAndGet("server"), CURLE_OK);
}
