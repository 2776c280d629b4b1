// The transfer backend: one libcurl multi handle driven by one transfer
// thread. WebRequestManager is the process-wide facade; WebRequestController
// holds the state and runs the loop.
//
// Lock order (outermost first): multi_lock, then list_mutex; wake_mutex,
// then list_mutex. list_mutex is always innermost. The transfer thread holds
// multi_lock in read mode around each multi call and across one message
// drain, never across the socket wait; callers take it in write mode to add
// and remove handles.
#pragma once

#include <pthread.h>

#include <atomic>
#include <list>

#include <curl/curl.h>

#include "webclient/export.h"

class WebRequest;

class WEBCLIENT_API WebRequestController {
public:
    WebRequestController();
    WebRequestController(const WebRequestController&) = delete;
    WebRequestController& operator=(const WebRequestController&) = delete;

    // Transfer thread entry point; `controller` is this object. Returns null.
    static void* run(void* controller);
    // Transfer thread: pump until no transfer is active.
    void processPendingRequests();
    void waitForSocketActivity();
    void queryMessages();
    // Takes list_mutex. The registered request with this easy handle, or null.
    WebRequest* findRequest(void* handle, bool remove);
    // Any thread: takes multi_lock (write), list_mutex, then wake_mutex.
    void addRequest(WebRequest* request);
    // Stops and joins the thread, empties the handle pool, releases libcurl.
    void shutdown();

    CURLM* multi;
    pthread_rwlock_t multi_lock;
    pthread_mutex_t list_mutex;
    pthread_mutex_t wake_mutex;
    pthread_t thread;
    pthread_cond_t wake_cond;
    std::atomic<bool> running;
    std::list<WebRequest*> requests;
};

class WEBCLIENT_API WebRequestManager {
public:
    // The singleton, created on the first call; throws WebException (and
    // stays unset) when libcurl cannot make a multi handle. The first call
    // must happen before other threads use the library.
    static WebRequestManager* getInstance();
    ~WebRequestManager();
    WebRequestManager(const WebRequestManager&) = delete;
    WebRequestManager& operator=(const WebRequestManager&) = delete;

    // Starts the transfer thread and sleeps 5 s; a second call does nothing.
    void initBackEnd();
    void stopBackEnd();
    void beginRequest(WebRequest* request);
    // Unregisters `request` if registered. Takes list_mutex, then multi_lock.
    void closeRequest(WebRequest* request);

    WebRequestController* controller;

private:
    WebRequestManager();
    static WebRequestManager* _instance;
};

// Throws WebException with curl_multi_strerror(code); never returns.
[[noreturn]] WEBCLIENT_API void handleError(CURLMcode code);
