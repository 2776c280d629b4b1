// Renewing a handle between transfers, both ways: a new handle (what this
// machine's libcurl needs) and the same handle reused (newer libcurl).
#include <gtest/gtest.h>

#include <string>

#include "engine/handle_renewal.h"
#include "support/server_util.h"

namespace {

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

CURLcode getQuietly(CURL* handle, const std::string& url) {
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discard);
    return curl_easy_perform(handle);
}

}  // namespace

TEST(HandleRenewal, NothingOfTheEarlierTransferReachesTheNextOne) {
    TestServer server;
    const std::string url = server.url("127.0.0.1", "/echo");
    for (const bool replace : {true, false}) {
        CURL* handle = curl_easy_init();
        ASSERT_NE(handle, nullptr);
        const std::string earlierBody = "earlier body";
        curl_easy_setopt(handle, CURLOPT_USERPWD, "user:secret");
        curl_easy_setopt(handle, CURLOPT_COOKIE, "session=1");
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, earlierBody.c_str());
        ASSERT_EQ(getQuietly(handle, url), CURLE_OK);
        ASSERT_EQ(lastRequest(server).method, "POST");

        handle = webclient::handleForNextTransfer(handle, replace);
        ASSERT_EQ(getQuietly(handle, url), CURLE_OK);
        const RecordedRequest next = lastRequest(server);
        EXPECT_EQ(next.method, "GET") << "replace=" << replace;
        EXPECT_EQ(next.body, "") << "replace=" << replace;
        EXPECT_EQ(headerOf(next, "Authorization"), "") << "replace=" << replace;
        EXPECT_EQ(headerOf(next, "Cookie"), "") << "replace=" << replace;
        curl_easy_cleanup(handle);
    }
}
