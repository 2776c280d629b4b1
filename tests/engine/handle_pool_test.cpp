// The handle pool: one handle per origin and method class, eviction of idle
// handles. (Unusable URLs make inert requests: WebRequestWait.)
#include <gtest/gtest.h>

#include "webclient/web_handle.h"

namespace {

WebHandleManager& pool() { return *WebHandleManager::getInstance(); }

}  // namespace

TEST(HandlePool, SameOriginAndClassShareOneHandle) {
    auto a = pool().GetWebHandle("https://192.0.2.10/x", "GET");
    ASSERT_TRUE(a);
    EXPECT_NE(a->curl_handle, nullptr);
    EXPECT_EQ(a.get(), pool().GetWebHandle("https://192.0.2.10/y?z=1", "GET").get());
    EXPECT_EQ(a.get(), pool().GetWebHandle("https://192.0.2.10", "GET").get());
    EXPECT_NE(a.get(), pool().GetWebHandle("http://192.0.2.10/x", "GET").get()) << "the scheme is part of the origin";
    EXPECT_NE(a.get(), pool().GetWebHandle("https://192.0.2.10:443/x", "GET").get()) << "the origin as written";

    auto post = pool().GetWebHandle("https://192.0.2.10/z", "POST");
    EXPECT_NE(a.get(), post.get());
    EXPECT_EQ(post.get(), pool().GetWebHandle("https://192.0.2.10/z", "PUT").get()) << "every other method shares one";
    EXPECT_EQ(post.get(), pool().GetWebHandle("https://192.0.2.10/z", "get").get()) << "the class is case-sensitive";
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
    EXPECT_NE(pool().GetWebHandle("http://192.0.2.20/", "GET").get(), old.get());
}
