// EasyWebClient and its exported wrappers: its own easy handle on the
// caller's thread, no pool.
#include <gtest/gtest.h>

#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/easy_web_client.h"

namespace {

std::string take(char* text) {
    std::string copy = text ? text : "<null>";
    std::free(text);
    return copy;
}

}  // namespace

TEST(EasyWebClient, GetFollowsRedirectsAndSendsWhatItIsGiven) {
    TestServer server;
    int code = 0;
    const std::string redirect = server.url("127.0.0.1", "/redirect?to=/echo");
    EXPECT_EQ(take(easyWebClientGet(redirect.c_str(), "u", "p", "c=1", nullptr, &code)).rfind("GET /echo", 0), 0u);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), "c=1");
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "Basic dTpw");
    const char* one[] = {"X-Only: this", nullptr};
    take(easyWebClientGet(server.url("localhost", "/echo").c_str(), "u", "", nullptr, one, &code));
    EXPECT_EQ(headerOf(lastRequest(server), "X-Only"), "this");
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "") << "an empty password sends no credentials";
    code = 5;
    EXPECT_EQ(easyWebClientGet(nullptr, nullptr, nullptr, nullptr, nullptr, &code), nullptr);
    EXPECT_EQ(code, 5);

    const char* ownCookie[] = {"cookie: mine=2", nullptr};
    take(easyWebClientGet(server.url("127.0.0.1", "/echo").c_str(), nullptr, nullptr, "c=1", ownCookie, &code));
    const RecordedRequest sent = lastRequest(server);
    EXPECT_EQ(sent.headers.count("cookie") + sent.headers.count("Cookie"), 1u) << "the caller's own Cookie line only";
    EXPECT_EQ(headerOf(sent, "cookie"), "mine=2");

    // An object used again sends each call's own lines, not the earlier ones.
    EasyWebClient client;
    std::vector<std::string> first = {"X-First: 1"}, second = {"X-Second: 2"};
    std::string response, responseHeaders;
    client.get(server.url("127.0.0.1", "/echo"), "", "", "c=1", first, responseHeaders, response);
    client.get(server.url("127.0.0.1", "/echo"), "", "", "", second, responseHeaders, response);
    EXPECT_EQ(headerOf(lastRequest(server), "X-Second"), "2");
    EXPECT_EQ(lastRequest(server).headers.count("X-First"), 0u);
    EXPECT_EQ(lastRequest(server).headers.count("Cookie"), 0u);
    client.post(server.url("127.0.0.1", "/echo"), "u", "p", "posted", second, response, &code);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(lastRequest(server).body, "posted");
    // A NUL would cut the URL or a line short: refused as a line break is.
    const size_t seen = server.requests().size();
    const std::string nul("\0", 1);
    std::vector<std::string> cut = {"X-A: 1" + nul + "X-B: 2"};
    EXPECT_EQ(client.get(server.url("127.0.0.1", "/echo") + nul + "/x", "", "", "", second, responseHeaders, response), -1);
    EXPECT_EQ(client.get(server.url("127.0.0.1", "/echo"), "", "", "", cut, responseHeaders, response), -1);
    EXPECT_EQ(client.get(server.url("127.0.0.1", "/echo"), "", "", "a=1" + nul + "b=2", second, responseHeaders,
                         response),
              -1);
    // Texts over libcurl's 8 MB limit: not sent without them.
    const std::string huge(9u << 20, 'p');
    EXPECT_EQ(client.get(server.url("127.0.0.1", "/echo"), "u", huge, "", second, responseHeaders, response), -1);
    EXPECT_EQ(client.get(server.url("127.0.0.1", "/echo"), "u", "p", huge, second, responseHeaders, response), -1);
    EXPECT_EQ(server.requests().size(), seen);
}

TEST(EasyWebClient, UploadsWithAndWithoutAFile) {
    TestServer server;
    TempFile file("easy upload");
    const std::string target = server.url("127.0.0.1", "/echo");
    int code = 0;
    take(easyWebClientUploadByPost(target.c_str(), "u", "p", nullptr, "doc", file.path().c_str(), &code));
    EXPECT_EQ(code, 200);
    ASSERT_EQ(lastRequest(server).parts.size(), 1u);
    EXPECT_EQ(lastRequest(server).parts[0].name, "doc");
    EXPECT_EQ(lastRequest(server).parts[0].content, "easy upload");
    {
        // A second upload by the same object sends its own file only (and
        // the first form is not leaked).
        EasyWebClient client;
        TempFile other("second upload");
        std::string response;
        client.uploadByPost(target, "", "", noHeaders, "doc", file.path(), response);
        EXPECT_EQ(client.uploadByPost(target, "", "", noHeaders, "other", other.path(), response), 200);
        ASSERT_EQ(lastRequest(server).parts.size(), 1u);
        EXPECT_EQ(lastRequest(server).parts[0].content, "second upload");
        const size_t seen = server.requests().size();
        EXPECT_EQ(client.uploadByPost(target, "", "", noHeaders, "dir", "/tmp", response), -1);
        EXPECT_EQ(server.requests().size(), seen) << "a directory is no file to send";
    }
    {
        StdinWithData stdinData("must not be sent");
        take(easyWebClientUploadByPost(target.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, &code));
    }
    EXPECT_EQ(code, 200);
    EXPECT_EQ(lastRequest(server).method, "POST");
    EXPECT_EQ(lastRequest(server).body, "");
    EXPECT_TRUE(lastRequest(server).parts.empty());
}
