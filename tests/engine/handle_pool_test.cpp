// The handle pool: keys, method classes, refusal of unusable URLs, eviction.
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "webclient/web_handle.h"

namespace {

WebHandleManager& pool() { return *WebHandleManager::getInstance(); }

}  // namespace

TEST(HandlePool, SameOriginAndClassShareOneHandle) {
    auto a = pool().GetWebHandle("https://192.0.2.10/x", "GET");
    auto b = pool().GetWebHandle("https://192.0.2.10/y?z=1", "GET");
    auto bare = pool().GetWebHandle("https://192.0.2.10", "GET");
    ASSERT_TRUE(a);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_EQ(a.get(), bare.get());
    EXPECT_NE(a->curl_handle, nullptr);

    auto post = pool().GetWebHandle("https://192.0.2.10/z", "POST");
    auto put = pool().GetWebHandle("https://192.0.2.10/z", "PUT");
    auto lowerGet = pool().GetWebHandle("https://192.0.2.10/z", "get");
    EXPECT_NE(a.get(), post.get());
    EXPECT_EQ(post.get(), put.get()) << "every non-GET method shares the other pool";
    EXPECT_EQ(post.get(), lowerGet.get()) << "method class is case-sensitive";
}

TEST(HandlePool, KeyIsSchemeAndAuthorityAsWritten) {
    auto plain = pool().GetWebHandle("https://192.0.2.11/a", "GET");
    EXPECT_NE(plain.get(), pool().GetWebHandle("https://192.0.2.11:443/a", "GET").get());
    EXPECT_NE(plain.get(), pool().GetWebHandle("http://192.0.2.11/a", "GET").get());
    EXPECT_NE(plain.get(), pool().GetWebHandle("https://user@192.0.2.11/a", "GET").get());
    EXPECT_EQ(WebHandleManager::get_pool.count("https://192.0.2.11:443"), 1u);
    EXPECT_EQ(WebHandleManager::get_pool.count("https://192.0.2.11"), 1u);
}

TEST(HandlePool, UnusableUrlsAreRefusedAndLogged) {
    LogCapture log;
    for (const char* url : {"http://0.0.0.0:8080/x", "https://0.0.0.0/x", "192.0.2.10/x",
                            "https:/192.0.2.10/x", "file:///etc/x", ""}) {
        EXPECT_FALSE(pool().GetWebHandle(url, "GET")) << url;
    }
    EXPECT_EQ(log.count("[WebHandleManager::GetWebHandle] https://0.0.0.0/x GET return empty handle"), 1u);
    EXPECT_EQ(log.countContaining("return empty handle"), 6u);
    EXPECT_TRUE(pool().GetWebHandle("https://10.0.0.0:443/x", "GET"));
    EXPECT_TRUE(pool().IsValidIPAddress("10.0.0.0:443"));
    EXPECT_FALSE(pool().IsValidIPAddress("0.0.0.0:1"));
    EXPECT_TRUE(pool().IsValidIPAddress("0.0.0.01"));
}

TEST(HandlePool, EvictsHandlesIdleForMoreThan900Seconds) {
    auto old = pool().GetWebHandle("http://192.0.2.20/", "GET");
    auto edge = pool().GetWebHandle("http://192.0.2.21/", "POST");
    auto refreshed = pool().GetWebHandle("http://192.0.2.22/", "GET");
    const time_t now = time(nullptr);
    old->last_used = now - 902;
    edge->last_used = now + 10 - 900;  // inside the window for the next call
    refreshed->last_used = now - 5000;

    // A call for its own key refreshes an old handle instead of evicting it.
    EXPECT_EQ(pool().GetWebHandle("http://192.0.2.22/x", "GET").get(), refreshed.get());
    EXPECT_EQ(WebHandleManager::get_pool.count("http://192.0.2.20"), 0u) << "swept by any call";
    EXPECT_EQ(WebHandleManager::other_pool.count("http://192.0.2.21"), 1u);
    EXPECT_NE(old->curl_handle, nullptr) << "a holder keeps an evicted handle alive";
    auto replacement = pool().GetWebHandle("http://192.0.2.20/", "GET");
    EXPECT_NE(replacement.get(), old.get());
}
