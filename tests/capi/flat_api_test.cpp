// The exported plain-type functions end to end on both dispatch paths.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/flat_api.h"

namespace {

// Owns a string returned by the library (released with free, as Strdup's).
struct Owned {
    explicit Owned(char* text) : text(text) {}
    ~Owned() { std::free(text); }
    std::string str() const { return text ? std::string(text) : std::string("<null>"); }
    char* text;
};

}  // namespace

class FlatFunctions : public ::testing::TestWithParam<const char*> {
protected:
    TestServer server;
    std::string url(const std::string& path) { return serverUrl(server, GetParam(), path); }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, FlatFunctions, ::testing::Values("127.0.0.1", "localhost"));

TEST_P(FlatFunctions, TextFunctionsReturnCallerOwnedBodies) {
    const char* headers[] = {"X-First: 1", nullptr, "X-Ignored: 2"};
    Owned get(webClientGet(url("/echo").c_str(), "u", "p", headers, false));
    EXPECT_NE(get.str().find("GET"), std::string::npos);
    RecordedRequest seen = lastRequest(server);
    EXPECT_EQ(headerOf(seen, "X-First"), "1");
    EXPECT_EQ(headerOf(seen, "X-Ignored"), "") << "the array ends at its first null";
    EXPECT_EQ(headerOf(seen, "Authorization"), "Basic dTpw");

    Owned post(webClientPost(url("/echo").c_str(), nullptr, "p", "data=1", nullptr, false));
    EXPECT_EQ(lastRequest(server).body, "data=1");
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "") << "null user: no credentials";
    Owned put(webClientPut(url("/echo").c_str(), "u", "p", nullptr, nullptr, false));
    EXPECT_EQ(lastRequest(server).method, "PUT");
    EXPECT_EQ(lastRequest(server).body, "") << "null data is the empty body";
    Owned patch(webClientPatch(url("/echo").c_str(), "u", "p", "{}", nullptr, false));
    EXPECT_EQ(lastRequest(server).method, "PATCH");
    Owned del(webClientDelete(url("/echo").c_str(), "u", "p", nullptr, false));
    EXPECT_EQ(lastRequest(server).method, "DELETE");
    Owned empty(webClientGet(url("/empty").c_str(), nullptr, nullptr, nullptr, false));
    ASSERT_NE(empty.text, nullptr);
    EXPECT_STREQ(empty.text, "");
}

TEST_P(FlatFunctions, GetVariantsReportHeadersCookieAndStatus) {
    char* rawHeaders = nullptr;
    Owned body(webClientGet_ex(url("/status/404").c_str(), nullptr, nullptr, nullptr, &rawHeaders, false));
    Owned headerText(rawHeaders);
    EXPECT_EQ(body.str(), "status 404");
    EXPECT_EQ(headerText.str().rfind("HTTP/1.1 404", 0), 0u);

    int code = 0;
    Owned withCookie(webClientGet_ex2(url("/status/500").c_str(), nullptr, nullptr, "a=b", nullptr, &code, false));
    EXPECT_EQ(code, 500);
    EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), "a=b");
}

TEST_P(FlatFunctions, UploadReturnsNullForEmptyBodyAndChecksArguments) {
    LogCapture log;
    TempFile file("upload me");
    int code = -1;
    Owned answered(webClientUploadByPost(url("/echo").c_str(), "u", "p", nullptr, "f", file.path().c_str(),
                                         &code, false));
    EXPECT_EQ(code, 200);
    EXPECT_NE(answered.text, nullptr);
    EXPECT_EQ(lastRequest(server).parts.at(0).content, "upload me");
    Owned empty(webClientUploadByPost(url("/empty").c_str(), "u", "p", nullptr, "f", file.path().c_str(),
                                      &code, false));
    EXPECT_EQ(empty.text, nullptr);
    EXPECT_EQ(code, 200);
    code = -7;
    EXPECT_EQ(webClientUploadByPost(url("/echo").c_str(), "u", "p", nullptr, nullptr, file.path().c_str(),
                                    &code, false),
              nullptr);
    EXPECT_EQ(code, -7);
    EXPECT_EQ(log.count("webClientUploadByPost invalid argument!"), 1u);
}

TEST_P(FlatFunctions, DownloadsWriteTheFileAndReportStatus) {
    LogCapture log;
    TempFile out("old contents that must go away entirely");
    std::string error = "untouched";
    EXPECT_EQ(webClientDownload_ex(url("/bytes/70000").c_str(), nullptr, nullptr, nullptr, out.path().c_str(),
                                   error, false),
              200);
    EXPECT_EQ(readWholeFile(out.path()), pattern(70000));
    EXPECT_EQ(error, "");
    EXPECT_EQ(webClientDownload_ex(url("/status/404").c_str(), nullptr, nullptr, nullptr, out.path().c_str(),
                                   error, false),
              404);
    EXPECT_EQ(readWholeFile(out.path()), "status 404") << "truncated, then the 404 page";
    EXPECT_EQ(webClientDownload(url("/status/404").c_str(), nullptr, nullptr, nullptr, out.path().c_str(), false), 0);

    error = "untouched";
    EXPECT_EQ(webClientDownload_ex(url("/bytes/1").c_str(), nullptr, nullptr, nullptr, "/nonexistent-dir/f",
                                   error, false),
              -1);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(log.count("[webClientDownloa] failed to open file /nonexistent-dir/f"), 1u);
    EXPECT_EQ(webClientDownload(nullptr, nullptr, nullptr, nullptr, out.path().c_str(), false), -1);
    EXPECT_EQ(log.count("[webClientDownload] invalid argument!"), 1u);
}

TEST(FlatFunctionFailures, UnreachableHostGivesEmptyBodyAndStatusZero) {
    int code = -1;
    Owned body(webClientGet_ex2("http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr, &code, false));
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(body.text, "");
    std::string error;
    EXPECT_EQ(webClientDownload_ex("http://127.0.0.1:1/", nullptr, nullptr, nullptr, "/dev/null", error, false), 0);
    EXPECT_FALSE(error.empty());
}

TEST(FlatFunctionFailures, HeaderArrayConversion) {
    EXPECT_TRUE(header_array_to_vector(nullptr).empty());
    const char* lines[] = {"A: 1", " untouched ", nullptr};
    EXPECT_EQ(header_array_to_vector(lines), (std::vector<std::string>{"A: 1", " untouched "}));
}
