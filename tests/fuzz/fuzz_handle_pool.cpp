// The handle pool's URL handling on arbitrary URLs: no crash, and a handle
// once handed out for an origin is the one handed out again, separately for
// GET and for the other methods.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "webclient/web_handle.h"

namespace {

// Keeps the pool from growing over millions of distinct origins.
void emptyPools() {
    pthread_mutex_lock(&WebHandleManager::lock);
    WebHandleManager::get_pool.clear();
    WebHandleManager::other_pool.clear();
    pthread_mutex_unlock(&WebHandleManager::lock);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    WebHandleManager* pool = WebHandleManager::getInstance();
    (void)pool->IsValidIPAddress(url);
    auto forGet = pool->GetWebHandle(url, "GET");
    auto forPut = pool->GetWebHandle(url, "PUT");
    if ((forGet == nullptr) != (forPut == nullptr)) std::abort();
    if (forGet != nullptr) {
        if (forGet == forPut || pool->GetWebHandle(url, "GET") != forGet) std::abort();
        if (pool->GetWebHandle(url, "DELETE") != forPut) std::abort();
    }
    emptyPools();
    return 0;
}
