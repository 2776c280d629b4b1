// The handle pool: libcurl easy handles reused per URL origin and method
// class (GET, everything else).
#pragma once

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <map>
#include <memory>
#include <string>

#include <curl/curl.h>

#include "webclient/export.h"

// One pooled easy handle. Always owned through std::shared_ptr, shared by
// the pool entry and every request holding it; exclusive use of
// `curl_handle` is had by holding `mutex` (Lock/Unlock).
class WEBCLIENT_API WebHandle {
public:
    WebHandle();
    virtual ~WebHandle();
    WebHandle(const WebHandle&) = delete;
    WebHandle& operator=(const WebHandle&) = delete;

    void Lock();
    void Unlock();
    // Lock(), or false at once when the calling thread already holds
    // `mutex` (a request it keeps alive for the same origin and method
    // class): Lock() would wait for ever for that thread itself.
    bool LockUnlessHeldHere();

    CURL* curl_handle;        // null when curl_easy_init failed, or between caller's-thread transfers
    time_t last_used;         // creation, then each time the pool hands it out
    pthread_mutex_t mutex;    // held by the one request using the handle
    // Connections and DNS answers of caller's-thread transfers, kept apart
    // from `curl_handle` so they survive its replacement by a new handle.
    // Used under `mutex` only; null when libcurl could not make one.
    CURLSH* share;
    // Who holds `mutex` (an address unique to the holding thread), or null.
    std::atomic<const void*> holder;
};

using WebHandlePool = std::map<std::string, std::shared_ptr<WebHandle>>;

// The process-wide pool. `_instance` is created on first use (by a request
// or by the backend shutdown) and never deleted.
class WEBCLIENT_API WebHandleManager {
public:
    WebHandleManager();
    virtual ~WebHandleManager();
    WebHandleManager(const WebHandleManager&) = delete;
    WebHandleManager& operator=(const WebHandleManager&) = delete;

    // The singleton, created exactly once even under concurrent first calls.
    static WebHandleManager* getInstance();

    // False for an empty authority, "0.0.0.0" or one beginning "0.0.0.0:".
    bool IsValidIPAddress(const std::string& authority);
    // The handle for this origin and method class, or empty (unusable URL:
    // logged; pool cleared: not logged). Takes and releases `lock`; never
    // waits on a handle's own mutex.
    std::shared_ptr<WebHandle> GetWebHandle(const std::string& url, const std::string& method);
    // Empties both pools for good. Takes and releases `lock`.
    void ClearWebHandle();

    bool cleared;

    static WebHandleManager* _instance;
    static WebHandlePool get_pool;
    static WebHandlePool other_pool;
    static pthread_mutex_t lock;
};
