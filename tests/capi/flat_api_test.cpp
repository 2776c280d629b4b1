// The exported plain-type functions end to end on both dispatch paths. This
// is where what each verb sends (method, body, header lines, credentials,
// cookie) and what it hands back (body, status, header text) is checked;
// the layers below run the same code for every verb.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/flat_api.h"
#include "webclient/host.h"

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
    std::string url(const std::string& path) { return server.url(GetParam(), path); }
};

INSTANTIATE_TEST_SUITE_P(BothPaths, FlatFunctions, ::testing::Values("127.0.0.1", "localhost"));

// Requests alternate between credentials and none on the same pooled
// handles, so nothing of one request may carry over into the next.
TEST_P(FlatFunctions, EveryVerbSendsItsMethodBodyHeadersAndCredentials) {
    const char* headers[] = {"X-First: 1", nullptr, "X-Ignored: 2"};
    const std::string target = url("/echo");
    using Call = std::function<char*(const char* user, const char* password)>;
    const std::vector<std::tuple<std::string, std::string, Call>> verbs = {
        {"GET", "", [&](auto u, auto p) { return webClientGet(target.c_str(), u, p, headers, false); }},
        {"POST", "data=1", [&](auto u, auto p) { return webClientPost(target.c_str(), u, p, "data=1", headers, false); }},
        {"PUT", "put body", [&](auto u, auto p) { return webClientPut(target.c_str(), u, p, "put body", headers, false); }},
        {"PATCH", "{}", [&](auto u, auto p) { return webClientPatch(target.c_str(), u, p, "{}", headers, false); }},
        {"DELETE", "", [&](auto u, auto p) { return webClientDelete(target.c_str(), u, p, headers, false); }},
    };
    const std::vector<std::tuple<const char*, const char*, std::string>> credentials = {
        {"u", "p", "Basic dTpw"}, {nullptr, "p", ""}, {"u", "", ""}, {"u", "p", "Basic dTpw"}};
    for (const auto& [user, password, authorization] : credentials) {
        for (const auto& [method, body, call] : verbs) {
            Owned answer(call(user, password));
            const RecordedRequest seen = lastRequest(server);
            const std::string label = method + " as " + (user ? user : "<null>") + ":" + password;
            EXPECT_EQ(seen.method, method) << label;
            EXPECT_EQ(seen.body, body) << label;
            EXPECT_EQ(answer.str().rfind(method + " /echo\n", 0), 0u) << label << ": the answer is the body";
            EXPECT_EQ(headerOf(seen, "X-First"), "1") << label;
            EXPECT_EQ(headerOf(seen, "X-Ignored"), "") << "the array ends at its first null";
            EXPECT_EQ(headerOf(seen, "Authorization"), authorization) << label;
        }
    }
    Owned put(webClientPut(target.c_str(), "u", "p", nullptr, nullptr, false));
    EXPECT_EQ(lastRequest(server).body, "") << "null data is the empty body";
    EXPECT_EQ(headerOf(lastRequest(server), "X-First"), "") << "no array: no header lines";
}

TEST_P(FlatFunctions, GetVariantsReportStatusHeaderTextAndCookie) {
    int code = 0;
    for (const char* cookie : {"a=b; c=d", static_cast<const char*>(nullptr)}) {
        Owned body(webClientGet_ex2(url("/status/500").c_str(), nullptr, nullptr, cookie, nullptr, &code, false));
        EXPECT_EQ(code, 500);
        EXPECT_EQ(body.str(), "status 500");
        EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), cookie ? cookie : "") << "only when given";
    }
    // A line break would let a header line or the cookie smuggle in more
    // lines, or a whole request: nothing goes out.
    const size_t seenBefore = server.requests().size();
    const char* smuggling[] = {"X-A: 1\r\n\r\nGET /smuggled HTTP/1.1", nullptr};
    const char* bareReturn[] = {"X-A: 1\rX-B: 2", nullptr};  // some servers end a line there
    code = -1;
    Owned refused(webClientGet_ex2(url("/echo").c_str(), nullptr, nullptr, nullptr, smuggling, &code, false));
    Owned refusedReturn(webClientGet_ex2(url("/echo").c_str(), nullptr, nullptr, nullptr, bareReturn, &code, false));
    Owned refusedCookie(webClientGet_ex2(url("/echo").c_str(), nullptr, nullptr, "a=1\nX-B: 2", nullptr, &code, false));
    EXPECT_EQ(server.requests().size(), seenBefore);
    EXPECT_EQ(refused.text, nullptr);
    EXPECT_EQ(code, -1);
    // A line ending at the very end only is dropped, not doubled on the wire.
    const char* complete[] = {"X-Complete: yes\r\n", "X-Next: 1", nullptr};
    Owned sent(webClientGet_ex2(url("/echo").c_str(), nullptr, nullptr, "c=1\r\n", complete, &code, false));
    EXPECT_EQ(code, 200);
    EXPECT_EQ(headerOf(lastRequest(server), "X-Next"), "1");
    EXPECT_EQ(headerOf(lastRequest(server), "Cookie"), "c=1");
    char* rawHeaders = nullptr;
    Owned body(webClientGet_ex(url("/status/404").c_str(), nullptr, nullptr, nullptr, &rawHeaders, false));
    Owned headerText(rawHeaders);
    EXPECT_EQ(body.str(), "status 404");
    EXPECT_EQ(headerText.str().rfind("HTTP/1.1 404", 0), 0u);
    Owned empty(webClientGet(url("/empty").c_str(), nullptr, nullptr, nullptr, false));
    ASSERT_NE(empty.text, nullptr) << "an empty answer is an empty string";
    EXPECT_STREQ(empty.text, "");
}

TEST_P(FlatFunctions, UploadReturnsNullForEmptyBodyAndChecksArguments) {
    LogCapture log;
    TempFile file("upload me");
    int code = -1;
    Owned answered(webClientUploadByPost(url("/echo").c_str(), "u", "p", nullptr, "f", file.path().c_str(),
                                         &code, false));
    EXPECT_EQ(code, 200);
    EXPECT_NE(answered.text, nullptr);
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

    // libcurl would send a directory as an empty file, and the server answer 200.
    const size_t seen = server.requests().size();
    EXPECT_EQ(webClientUploadByPost(url("/echo").c_str(), "u", "p", nullptr, "f", "/tmp", &code, false), nullptr);
    EXPECT_EQ(code, -7);
    EXPECT_EQ(log.count("[webClientUploadByPost] Exception : cannot upload a directory"), 1u);
    EXPECT_EQ(server.requests().size(), seen) << "nothing sent";
}

TEST_P(FlatFunctions, DownloadsWriteTheFileAndReportStatus) {
    LogCapture log;
    TempFile out("old contents that must go away entirely");
    const char* headers[] = {"X-First: 1", nullptr};
    std::string error = "untouched";
    EXPECT_EQ(webClientDownload_ex(url("/bytes/700000").c_str(), "u", "p", headers, out.path().c_str(), error,
                                   false),
              200);
    EXPECT_EQ(readWholeFile(out.path()), pattern(700000));
    EXPECT_EQ(error, "");
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "Basic dTpw");
    EXPECT_EQ(webClientDownload_ex(url("/status/404").c_str(), "u", "p", nullptr, out.path().c_str(), error, false),
              404);
    EXPECT_EQ(readWholeFile(out.path()), "status 404") << "truncated, then the 404 page";
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "") << "no header lines: no credentials";
    EXPECT_EQ(webClientDownload(url("/status/404").c_str(), nullptr, nullptr, nullptr, out.path().c_str(), false), 0);

    error = "untouched";
    EXPECT_EQ(webClientDownload_ex(url("/bytes/1").c_str(), nullptr, nullptr, nullptr, "/nonexistent-dir/f",
                                   error, false),
              -1);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(log.count("[webClientDownloa] failed to open file /nonexistent-dir/f"), 1u);
    EXPECT_EQ(webClientDownload(url("/bytes/1").c_str(), nullptr, nullptr, nullptr, "/nonexistent-dir/f", false), -1);
    EXPECT_EQ(webClientDownload(nullptr, nullptr, nullptr, nullptr, out.path().c_str(), false), -1);
    EXPECT_EQ(log.count("[webClientDownload] invalid argument!"), 1u);
}

// A host that closed its standard error (a daemon) must not have the
// library's log lines written into a download's file, which would take
// descriptor 2. In a child (the caller's-thread path), at debug level, with
// the log going to standard error.
TEST(FlatDownload, FileNeverReceivesTheLogOfAHostWithoutStandardError) {
    TestServer server;
    TempFile out("");
    const std::string source = server.url("localhost", "/bytes/7000");
    waitUntilOtherThreadsSleep();
    const pid_t host = fork();
    if (host == 0) {
        alarm(20);
        SetWebClientLogSink({});  // the stand-in logger's own: standard error
        close(STDERR_FILENO);
        SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
        const int result = webClientDownload(source.c_str(), nullptr, nullptr, nullptr, out.path().c_str(), false);
        _exit(result == 0 && readWholeFile(out.path()) == pattern(7000) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(host, &status, 0), host);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readWholeFile(out.path()).substr(0, 200);
}
