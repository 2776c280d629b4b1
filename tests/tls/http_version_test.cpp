// Requests go out as HTTP/1.1 on every path, also to TLS servers: libcurl
// would otherwise offer HTTP/2, and over HTTP/2 the response header text
// callers read changes form ("HTTP/2 200 ", lower-case names). What the
// client offers is read in the server's TLS handshake (ALPN).
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <mutex>

#include "support/pki.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/easy_web_client.h"
#include "webclient/web_request.h"

namespace {

std::mutex offerMutex;
std::string offer;  // the protocols of the last handshake, in ALPN's wire form

int recordOffer(SSL*, const unsigned char**, unsigned char*, const unsigned char* in, unsigned int length, void*) {
    std::lock_guard<std::mutex> guard(offerMutex);
    offer.assign(reinterpret_cast<const char*>(in), length);
    return SSL_TLSEXT_ERR_NOACK;
}

std::string takeOffer() {
    std::lock_guard<std::mutex> guard(offerMutex);
    return std::exchange(offer, std::string());
}

}  // namespace

TEST(HttpVersion, NoPathOffersHttp2) {
    TestServer server(TestPki::instance().tls("server"), "127.0.0.1", [](httplib::Server& plain) {
        SSL_CTX_set_alpn_select_cb(static_cast<httplib::SSLServer&>(plain).ssl_context(), recordOffer, nullptr);
    });
    const std::string http11 = "\x08http/1.1";
    // 127.0.0.1 runs on the transfer thread, localhost on the caller's.
    for (const char* host : {"127.0.0.1", "localhost"}) {
        Collected body;
        WebRequest request(server.url(host, "/echo"), "GET", false);
        request.getAsync(noHeaders, body.callback(), {});
        ASSERT_EQ(request.wait(5000), 0) << host;
        EXPECT_EQ(request.getResponseCode(), 200) << host;
        EXPECT_EQ(takeOffer(), http11) << host;
    }
    EasyWebClient client;
    std::string responseHeaders, response;
    EXPECT_EQ(client.get(server.url("localhost", "/echo"), "", "", "", noHeaders, responseHeaders, response), 200);
    EXPECT_EQ(takeOffer(), http11);
}
