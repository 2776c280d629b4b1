// EasyWebClient and its exported wrappers.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/easy_web_client.h"

namespace {

std::string take(char* text) {
    std::string copy = text ? text : "<null>";
    std::free(text);
    return copy;
}

// Points standard input at a pipe holding `data` for the object's lifetime,
// to prove that a body-less POST does not read it.
class StdinWithData {
public:
    explicit StdinWithData(const std::string& data) : saved_(dup(STDIN_FILENO)) {
        int fds[2];
        if (pipe(fds) == 0) {
            (void)!write(fds[1], data.data(), data.size());
            close(fds[1]);
            dup2(fds[0], STDIN_FILENO);
            close(fds[0]);
        }
    }
    ~StdinWithData() {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

}  // namespace

TEST(EasyWebClient, GetFollowsRedirectsAndReportsStatus) {
    TestServer server;
    int code = 0;
    EXPECT_NE(take(easyWebClientGet(serverUrl(server, "127.0.0.1", "/redirect?to=/echo").c_str(), "u", "p",
                                    "c=1", nullptr, &code))
                  .find("GET"),
              std::string::npos);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), "c=1");
    EXPECT_EQ(take(easyWebClientGet(serverUrl(server, "127.0.0.1", "/status/404").c_str(), nullptr, nullptr,
                                    nullptr, nullptr, &code)),
              "status 404");
    EXPECT_EQ(code, 404);
    const char* one[] = {"X-Only: this", nullptr};
    take(easyWebClientGet(serverUrl(server, "localhost", "/echo").c_str(), "u", "", nullptr, one, &code));
    EXPECT_EQ(headerOf(lastRequest(server), "X-Only"), "this");
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "");
    code = 5;
    EXPECT_EQ(easyWebClientGet(nullptr, nullptr, nullptr, nullptr, nullptr, &code), nullptr);
    EXPECT_EQ(code, 5);
}

TEST(EasyWebClient, UnreachableHostIsMinusOneWithEmptyBody) {
    LogCapture log;
    int code = 0;
    EXPECT_EQ(take(easyWebClientGet("http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr, &code)), "");
    EXPECT_EQ(code, -1);
    EXPECT_EQ(log.count("[get] failed 7."), 1u);
}

TEST(EasyWebClient, UploadsWithAndWithoutAFile) {
    TestServer server;
    TempFile file("easy upload");
    int code = 0;
    take(easyWebClientUploadByPost(serverUrl(server, "127.0.0.1", "/echo").c_str(), "u", "p", nullptr, "doc",
                                   file.path().c_str(), &code));
    EXPECT_EQ(code, 200);
    ASSERT_EQ(lastRequest(server).parts.size(), 1u);
    EXPECT_EQ(lastRequest(server).parts[0].name, "doc");
    EXPECT_EQ(lastRequest(server).parts[0].content, "easy upload");
    {
        StdinWithData stdinData("must not be sent");
        take(easyWebClientUploadByPost(serverUrl(server, "127.0.0.1", "/echo").c_str(), nullptr, nullptr, nullptr,
                                       nullptr, nullptr, &code));
    }
    EXPECT_EQ(code, 200);
    EXPECT_EQ(lastRequest(server).method, "POST");
    EXPECT_EQ(lastRequest(server).body, "");
    EXPECT_TRUE(lastRequest(server).parts.empty());
}

TEST(EasyWebClient, SecondGetFormReportsTheCurlCodeAndKeepsPartialOutput) {
    EasyWebClient client;
    std::vector<std::string> none;
    std::string headers = "x", body = "y";
    int curlCode = 0;
    EXPECT_EQ(client.get("http://127.0.0.1:1/", "", "", none, headers, body, curlCode), -1);
    EXPECT_EQ(curlCode, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(body, "") << "assigned what was collected, even on failure";
}
