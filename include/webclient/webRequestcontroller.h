// The transfer backend: one libcurl multi handle driven by one transfer
// thread. WebRequestManager is the process-wide facade; WebRequestController
// holds the state and runs the loop.
//
// The loop is event driven: libcurl reports the sockets it wants watched and
// its timer through callbacks, and the thread waits in poll() (any descriptor
// number) on those sockets and on a wake-up eventfd. The thread sleeps on
// wake_cond whenever no transfer is active and nothing was registered since
// its last pump, also while completed requests wait for their owners.
// Registering a request, or removing one in a way that brings libcurl's
// timer forward (a freed connection lets a held-back transfer start),
// counts in `work_notices` and wakes the thread only where it sleeps: the
// condition when `sleeping`, the eventfd when `polling`. Stopping the
// backend wakes both.
//
// Lock order (outermost first): lifecycle_mutex (start and stop only);
// multi_lock, then list_mutex; wake_mutex, then list_mutex. list_mutex is
// always innermost. The transfer thread holds multi_lock in read mode around
// each multi call and across one message drain, never across the socket
// wait; callers take it in write mode to add and remove handles.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <vector>

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
    // Any thread: takes multi_lock (write), list_mutex; then wake_mutex
    // only when the transfer thread sleeps on wake_cond.
    void addRequest(WebRequest* request);
    // Stops and joins the thread, empties the handle pool, releases libcurl.
    void shutdown();
    // Ends the transfer thread's socket wait at once (any thread).
    void wake();
    // Any thread, no lock of the backend held: counts a notice and wakes the
    // transfer thread where it sleeps or polls.
    void notifyTransferThread();

    // libcurl's socket and timer callbacks (called inside multi calls, on
    // whichever thread makes them). Take socket_mutex, always innermost.
    static int onSocket(CURL* easy, curl_socket_t socket, int what, void* controller, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* controller);

    CURLM* multi;
    pthread_rwlock_t multi_lock;
    pthread_mutex_t list_mutex;
    pthread_mutex_t wake_mutex;
    pthread_t thread;
    pthread_cond_t wake_cond;
    std::atomic<bool> running;
    std::list<WebRequest*> requests;

    // Event-loop state (not part of the request bookkeeping above).
    int wake_fd;                          // eventfd; -1 when it could not be made
    std::atomic<uint64_t> work_notices;   // registrations and other news for the thread
    std::atomic<bool> sleeping;           // set under wake_mutex while the thread is on wake_cond
    std::atomic<bool> polling;            // the thread is in (or entering) a blocking poll()
    bool pump_idle;                       // transfer thread only: last pump ended idle
    uint64_t pass_notices;                // transfer thread only: `work_notices` when this pass began
    bool last_wait_short;                 // transfer thread only: sockets were ready soon last time
    bool last_idle_short;                 // transfer thread only: new work came soon last time
    // A socket libcurl asked us to watch. The generation tells a descriptor
    // number that was closed and handed out again from the one polled.
    struct WatchedSocket {
        int wish;             // CURL_POLL_*
        uint64_t generation;  // from socket_generations when first watched
    };
    struct ReadySocket {
        curl_socket_t socket;
        int events;  // CURL_CSELECT_*
        uint64_t generation;
    };
    pthread_mutex_t socket_mutex;         // guards the next three
    std::map<curl_socket_t, WatchedSocket> watched_sockets;
    uint64_t socket_generations;
    long long timer_due_ms;               // monotonic ms when libcurl's timer is due; -1: none
    // Transfer thread: what the last poll() found ready.
    std::vector<ReadySocket> ready_sockets;
    // Whether `ready` still names the socket it was polled as.
    bool stillWatched(const ReadySocket& ready);
    // Whether libcurl's timer has expired.
    bool timerDue();
    // timer_due_ms, read under socket_mutex.
    long long timerDueMs();
    // Serialises starting and stopping the thread: two stops must not both
    // join it, and a stop racing a start must find the thread it joins.
    // Outermost of all locks; the transfer thread never takes it.
    pthread_mutex_t lifecycle_mutex;
    // Raised by a stop, under multi_lock's write side, before the thread's
    // last pump: a registration either comes before it (and that pump drives
    // it) or is refused, rather than sitting undriven until its owner's limit.
    bool closed;
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

    // Null until the first getInstance(); set once and never cleared.
    static WebRequestManager* _instance;
    WebRequestController* controller;

private:
    WebRequestManager();
};

// Throws WebException with curl_multi_strerror(code); never returns.
[[noreturn]] WEBCLIENT_API void handleError(CURLMcode code);
