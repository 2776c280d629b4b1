// The transfer backend: the multi handle, the transfer thread and its loop.
#include "webclient/webRequestcontroller.h"

#include <sys/select.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <mutex>

#include "engine/web_request_impl.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "webclient/exception.h"
#include "webclient/host.h"

namespace {

constexpr const char* kSwitchPlatform = "linux-kv210-kv410_armhf";
constexpr long kSwitchMaxConnections = 4;
constexpr long kDefaultMaxConnections = 6;
constexpr unsigned kStartupSettleSeconds = 5;
constexpr long kIdleBackoffNanoseconds = 10 * 1000 * 1000;

std::mutex g_manager_creation;

void sleepAfterIdleWait() {
    struct timespec backoff = {0, kIdleBackoffNanoseconds};
    nanosleep(&backoff, nullptr);
}

}  // namespace

void handleError(CURLMcode code) { throw WebException(curl_multi_strerror(code), nullptr); }

// ---- WebRequestController ------------------------------------------------

WebRequestController::WebRequestController()
    : multi(nullptr), thread(0), running(false) {
    pthread_rwlock_init(&multi_lock, nullptr);
    pthread_mutex_init(&list_mutex, nullptr);
    pthread_mutex_init(&wake_mutex, nullptr);
    pthread_cond_init(&wake_cond, nullptr);
}

// Sleeps on wake_cond while nothing is registered. `running` is re-read
// under wake_mutex, which shutdown() holds while it clears the flag and
// signals, so a stop that arrives just before the wait is never lost.
static void waitForWork(WebRequestController& controller) {
    utilities::lock::lock_guard wakeGuard(&controller.wake_mutex);
    size_t registered = 0;
    {
        utilities::lock::lock_guard listGuard(&controller.list_mutex);
        registered = controller.requests.size();
    }
    if (registered == 0 && controller.running) {
        pthread_cond_wait(&controller.wake_cond, &controller.wake_mutex);
    }
}

void* WebRequestController::run(void* controller) {
    auto* self = static_cast<WebRequestController*>(controller);
    try {
        while (self->running) {
            waitForWork(*self);
            self->processPendingRequests();
        }
    } catch (const Exception& error) {
        WC_LOG_DEBUG("<webRequestcontroller   run >exception %s", error.what());
    }
    WC_LOG_INFO("webRequestcontroller loop exit");
    return nullptr;
}

void WebRequestController::processPendingRequests() {
    try {
        int previousActive = -1;
        for (;;) {
            int active = 0;
            CURLMcode code;
            do {
                utilities::lock::lock_guard_read guard(&multi_lock);
                code = curl_multi_perform(multi, &active);
            } while (code == CURLM_CALL_MULTI_PERFORM);
            if (code != CURLM_OK) handleError(code);
            if (active < previousActive || active == 0) queryMessages();
            previousActive = active;
            if (active == 0) return;
            waitForSocketActivity();
        }
    } catch (const WebException&) {
        WC_LOG_DEBUG("processPendingRequests error");
    }
}

// libcurl's own wish (curl_multi_timeout) only chooses between a 1 s and a
// 2 s bound; the wait ends earlier on socket activity.
static struct timeval socketWaitBound(long wishMs) {
    struct timeval bound = {1, 0};
    if (wishMs >= 0) bound.tv_sec = (wishMs / 1000 == 0) ? 1 : 2;
    return bound;
}

void WebRequestController::waitForSocketActivity() {
    fd_set readSet, writeSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    int maxfd = -1;
    long wishMs = -1;
    {
        utilities::lock::lock_guard_read guard(&multi_lock);
        CURLMcode code = curl_multi_fdset(multi, &readSet, &writeSet, &exceptSet, &maxfd);
        if (code != CURLM_OK) handleError(code);
    }
    if (maxfd == -1) return;
    {
        utilities::lock::lock_guard_read guard(&multi_lock);
        CURLMcode code = curl_multi_timeout(multi, &wishMs);
        if (code != CURLM_OK) handleError(code);
    }
    struct timeval bound = socketWaitBound(wishMs);
    // No lock is held here, so callers can add and remove handles meanwhile.
    if (select(maxfd + 1, &readSet, &writeSet, &exceptSet, &bound) <= 0) sleepAfterIdleWait();
}

void WebRequestController::queryMessages() {
    utilities::lock::lock_guard_read guard(&multi_lock);
    int remaining = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
        if (message->msg != CURLMSG_DONE) continue;
        WebRequest* request = findRequest(message->easy_handle, false);
        if (request == nullptr) continue;
        request->impl_->result = message->data.result;
        if (strnlen_s_helper(request->impl_->error_buffer, CURL_ERROR_SIZE) != 0) {
            WC_LOG_ERROR("<queryMessages> error %s.", request->impl_->error_buffer);
        }
        request->setComplete();
    }
}

WebRequest* WebRequestController::findRequest(void* handle, bool remove) {
    utilities::lock::lock_guard guard(&list_mutex);
    if (handle == nullptr) {
        WC_LOG_DEBUG("<findRequest> handle is NULL.");
        return nullptr;
    }
    for (auto it = requests.begin(); it != requests.end(); ++it) {
        if ((*it)->impl_->curl_handle != handle) continue;
        WebRequest* found = *it;
        if (remove) requests.erase(it);
        return found;
    }
    return nullptr;
}

void WebRequestController::addRequest(WebRequest* request) {
    {
        utilities::lock::lock_guard_write multiGuard(&multi_lock);
        CURLMcode code = curl_multi_add_handle(multi, request->impl_->curl_handle);
        if (code != CURLM_OK) {
            WC_LOG_ERROR("curl_multi_add_handle error %d", static_cast<int>(code));
            handleError(code);
        }
        utilities::lock::lock_guard listGuard(&list_mutex);
        requests.push_back(request);
        WC_LOG_DEBUG("addRequest[%d] %s", static_cast<int>(requests.size()),
                     request->getPrintableUrl().c_str());
    }
    utilities::lock::lock_guard wakeGuard(&wake_mutex);
    pthread_cond_signal(&wake_cond);
}

void WebRequestController::shutdown() {
    {
        utilities::lock::lock_guard wakeGuard(&wake_mutex);
        running = false;
        pthread_cond_signal(&wake_cond);
    }
    if (thread == 0) return;
    pthread_join(thread, nullptr);
    thread = 0;
    if (multi != nullptr) {
        WebHandleManager::getInstance()->ClearWebHandle();
        curl_multi_cleanup(multi);
        curl_global_cleanup();
        multi = nullptr;
    }
}

// ---- WebRequestManager ---------------------------------------------------

WebRequestManager* WebRequestManager::_instance = nullptr;

WebRequestManager* WebRequestManager::getInstance() {
    WebRequestManager* existing = __atomic_load_n(&_instance, __ATOMIC_ACQUIRE);
    if (existing != nullptr) return existing;
    // The host's start-up makes the first call; the lock only makes a racy
    // first use from two threads harmless.
    std::lock_guard<std::mutex> guard(g_manager_creation);
    if (_instance == nullptr) __atomic_store_n(&_instance, new WebRequestManager(), __ATOMIC_RELEASE);
    return _instance;
}

WebRequestManager::WebRequestManager() : controller(new WebRequestController()) {
    curl_global_init(CURL_GLOBAL_ALL);
    CURLM* multi = curl_multi_init();
    if (multi == nullptr) {
        delete controller;
        throw WebException("Failed to initialize libcurl.", nullptr);
    }
    const bool onSwitch =
        kpu_utilities::system_info::GetPlatformInfo().find(kSwitchPlatform) != std::string::npos;
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS,
                      onSwitch ? kSwitchMaxConnections : kDefaultMaxConnections);
    controller->multi = multi;
    const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
    if (version->features & CURL_VERSION_ASYNCHDNS) {
        WC_LOG_INFO("curl ares enabled");
    } else {
        WC_LOG_INFO("curl ares NOT enabled");
    }
}

WebRequestManager::~WebRequestManager() {
    controller->shutdown();
    if (controller->multi != nullptr) {
        curl_multi_cleanup(controller->multi);
        curl_global_cleanup();
    }
    controller->running = false;
    pthread_mutex_destroy(&controller->list_mutex);
    pthread_mutex_destroy(&controller->wake_mutex);
    pthread_cond_destroy(&controller->wake_cond);
    pthread_rwlock_destroy(&controller->multi_lock);
    controller->requests.clear();
    delete controller;
}

void WebRequestManager::initBackEnd() {
    if (controller->running.exchange(true)) return;
    WC_LOG_DEBUG("will start the backend download threads ");
    int error = pthread_create(&controller->thread, nullptr, &WebRequestController::run, controller);
    if (error != 0) {
        WC_LOG_ERROR("startBackend create pthread failed %d", error);
        exit(-1);
    }
    WC_LOG_DEBUG("wait for the webclient start");
    sleep(kStartupSettleSeconds);
}

void WebRequestManager::stopBackEnd() { controller->shutdown(); }

void WebRequestManager::beginRequest(WebRequest* request) { controller->addRequest(request); }

void WebRequestManager::closeRequest(WebRequest* request) {
    CURL* handle = request->impl_->curl_handle;
    if (controller->findRequest(handle, true) == nullptr) return;
    utilities::lock::lock_guard_write guard(&controller->multi_lock);
    CURLMcode code = curl_multi_remove_handle(controller->multi, handle);
    if (code != CURLM_OK) {
        WC_LOG_ERROR("curl_multi_remove_handle error: %d", static_cast<int>(code));
        handleError(code);
    }
}
