// The handle pool: one easy handle per URL origin (scheme://authority as
// written) and method class, evicted after 900 s without being handed out.
#include <set>

#include "engine/handle_renewal.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "util/thread_holds.h"
#include "webclient/web_handle.h"
#include "webclient/web_request.h"

namespace {

constexpr time_t kEvictAfterSeconds = 900;

// Drops entries handed out more than kEvictAfterSeconds before `now`. Keys
// are gathered first so the map is not modified while it is walked.
void sweepPool(WebHandlePool& pool, time_t now) {
    std::set<std::string> expired;
    for (const auto& entry : pool) {
        if (entry.second->last_used + kEvictAfterSeconds < now) expired.insert(entry.first);
    }
    for (const auto& key : expired) pool.erase(key);
}

}  // namespace

WebHandle::WebHandle()
    : curl_handle(nullptr), last_used(0), share(webclient::makeConnectionShare()), holder(nullptr) {
    pthread_mutex_init(&mutex, nullptr);
    curl_handle = curl_easy_init();
    last_used = time(nullptr);
}

WebHandle::~WebHandle() {
    pthread_mutex_destroy(&mutex);
    webclient::cleanupEasyHandle(curl_handle);
    // After the easy handle: a share still in use refuses to go.
    if (share != nullptr) curl_share_cleanup(share);
}

void WebHandle::Lock() {
    (void)pthread_mutex_lock(&mutex);
    webclient::ThreadHolds& holds = webclient::thisThreadHolds();
    holder.store(&holds);
    ++holds.handle_locks;
}

bool WebHandle::LockUnlessHeldHere() {
    if (holder.load() == &webclient::thisThreadHolds()) return false;
    Lock();
    return true;
}

void WebHandle::Unlock() {
    --webclient::thisThreadHolds().handle_locks;
    holder.store(nullptr);
    (void)pthread_mutex_unlock(&mutex);
}

WebHandleManager* WebHandleManager::_instance = nullptr;
WebHandlePool WebHandleManager::get_pool;
WebHandlePool WebHandleManager::other_pool;
pthread_mutex_t WebHandleManager::lock;

namespace {

// Defined after the two pools, so destroyed just before them when the host
// calls exit(): from then on the pool hands out nothing, and a host thread
// still making requests gets an inert one instead of walking a freed map.
// (`lock` is a plain mutex and outlives every destructor.)
struct PoolClosedAtExit {
    ~PoolClosedAtExit() {
        WebHandleManager* pool = WebHandleManager::getInstance();
        utilities::lock::lock_guard guard(&WebHandleManager::lock);
        pool->cleared = true;
    }
} poolClosedAtExit;

}  // namespace

WebHandleManager::WebHandleManager() : cleared(false) { pthread_mutex_init(&lock, nullptr); }

WebHandleManager::~WebHandleManager() { pthread_mutex_destroy(&lock); }

WebHandleManager* WebHandleManager::getInstance() {
    // A function-local static gives the once-only creation that two threads
    // needing the pool for the first time at the same moment require.
    static WebHandleManager* const created = (_instance = new WebHandleManager());
    return created;
}

bool WebHandleManager::IsValidIPAddress(const std::string& authority) {
    if (authority.empty() || authority == "0.0.0.0") return false;
    return authority.compare(0, 8, "0.0.0.0:") != 0;
}

std::shared_ptr<WebHandle> WebHandleManager::GetWebHandle(const std::string& url,
                                                          const std::string& method) {
    std::vector<std::string> pieces = split(url.c_str(), "/");
    if (pieces.size() < 3 || !pieces[1].empty() || !IsValidIPAddress(pieces[2])) {
        WC_LOG_ERROR("[WebHandleManager::GetWebHandle] %s %s return empty handle",
                     get_printable_url(url).c_str(), method.c_str());
        return nullptr;
    }
    const std::string key = pieces[0] + "//" + pieces[2];

    utilities::lock::lock_guard guard(&lock);
    if (cleared) return nullptr;
    const time_t now = time(nullptr);
    WebHandlePool& pool = (method == "GET") ? get_pool : other_pool;
    auto found = pool.find(key);
    if (found == pool.end()) {
        found = pool.emplace(key, std::make_shared<WebHandle>()).first;
    } else {
        found->second->last_used = now;
    }
    sweepPool(get_pool, now);
    sweepPool(other_pool, now);
    return pool[key];
}

void WebHandleManager::ClearWebHandle() {
    utilities::lock::lock_guard guard(&lock);
    // Cleared pools stay empty; at exit they may already be destroyed.
    if (cleared) return;
    get_pool.clear();
    other_pool.clear();
    cleared = true;
}
