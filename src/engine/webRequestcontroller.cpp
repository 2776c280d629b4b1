// The transfer backend: the multi handle, the transfer thread and its loop.
#include "webclient/webRequestcontroller.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "engine/web_request_impl.h"
#include "engine/yield_wait.h"
#include "util/callback_barrier.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "util/standard_descriptors.h"
#include "util/thread_holds.h"
#include "util/whole_sleep.h"
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

namespace {

long long monotonicMs() { return webclient::monotonicMicros() / 1000; }

// The wait is bounded as it always was (1 s, or 2 s when libcurl asks for a
// second or more) and ends earlier when libcurl's timer is due.
int waitBoundMs(long long timerDueMs) {
    if (timerDueMs < 0) return 1000;
    const long long wish = timerDueMs - monotonicMs();
    if (wish <= 0) return 0;
    return static_cast<int>(wish < 1000 ? wish : std::min<long long>(wish, 2000));
}

// The multi lock is held for a few microseconds at a time: by the transfer
// thread around each libcurl call, by owners to add or remove a handle.
// Sleeping on it when it is busy made each request pay futex wake-ups on
// both sides whenever several owners were active, so a busy lock is
// retried for a short while first, yielding in between.
constexpr long kMultiLockRetryMicroseconds = 100;

// How long the transfer thread polls without blocking, or waits for new
// work without sleeping, while these have been coming quickly (see
// pollWatched and waitForWork).
constexpr long kReadySpinMicroseconds = 300;

enum class Access { Shared, Exclusive };

template <Access kAccess>
class MultiLockGuard {
public:
    explicit MultiLockGuard(pthread_rwlock_t* rwlock) noexcept : rwlock_(rwlock) {
        if (!webclient::yieldUntil([this] { return tryLock() == 0; }, kMultiLockRetryMicroseconds) &&
            lock() != 0) {
            rwlock_ = nullptr;
            print_back_trace();
            return;
        }
        ++webclient::thisThreadHolds().multi_locks;
    }
    ~MultiLockGuard() noexcept {
        if (rwlock_ == nullptr) return;
        --webclient::thisThreadHolds().multi_locks;
        (void)pthread_rwlock_unlock(rwlock_);
    }
    MultiLockGuard(const MultiLockGuard&) = delete;
    MultiLockGuard& operator=(const MultiLockGuard&) = delete;

private:
    int tryLock() {
        return kAccess == Access::Exclusive ? pthread_rwlock_trywrlock(rwlock_) : pthread_rwlock_tryrdlock(rwlock_);
    }
    int lock() { return kAccess == Access::Exclusive ? pthread_rwlock_wrlock(rwlock_) : pthread_rwlock_rdlock(rwlock_); }

    pthread_rwlock_t* rwlock_;
};

using MultiReadGuard = MultiLockGuard<Access::Shared>;
using MultiWriteGuard = MultiLockGuard<Access::Exclusive>;

// An error or hang-up is passed on together with "readable and writable",
// so that libcurl reads the socket and reports the actual failure.
int curlEventsOf(short revents) {
    int mask = 0;
    if (revents & POLLIN) mask |= CURL_CSELECT_IN;
    if (revents & POLLOUT) mask |= CURL_CSELECT_OUT;
    if (revents & (POLLERR | POLLHUP)) mask |= CURL_CSELECT_IN | CURL_CSELECT_OUT | CURL_CSELECT_ERR;
    return mask;
}

// Opened first of the backend's descriptors, before libcurl's own.
int openWakeDescriptor() {
    webclient::occupyFreeStandardDescriptors();
    return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

}  // namespace

WebRequestController::WebRequestController()
    : multi(nullptr), thread(0), running(false), wake_fd(openWakeDescriptor()),
      work_notices(0), sleeping(false), polling(false), pump_idle(true), pass_notices(0),
      last_wait_short(true), last_idle_short(true), socket_generations(0), timer_due_ms(-1), closed(false) {
    // Default attributes: callers' add and remove do not starve, because the
    // transfer thread holds the read side only around single calls and
    // waits for sockets without it.
    pthread_rwlock_init(&multi_lock, nullptr);
    pthread_mutex_init(&list_mutex, nullptr);
    pthread_mutex_init(&wake_mutex, nullptr);
    pthread_cond_init(&wake_cond, nullptr);
    pthread_mutex_init(&socket_mutex, nullptr);
    pthread_mutex_init(&lifecycle_mutex, nullptr);
}

int WebRequestController::onSocket(CURL*, curl_socket_t socket, int what, void* controller, void*) {
    auto* self = static_cast<WebRequestController*>(controller);
    // -1 (a failed watch, no memory) makes libcurl 7.88 fail every transfer
    // then in progress and refuse new ones until they have ended; losing the
    // socket instead would leave its transfer hanging.
    return webclient::resultOrOnException("onSocket", -1, [&] {
        utilities::lock::lock_guard guard(&self->socket_mutex);
        if (what == CURL_POLL_REMOVE) {
            self->watched_sockets.erase(socket);
            return 0;
        }
        auto found = self->watched_sockets.find(socket);
        if (found != self->watched_sockets.end()) {
            found->second.wish = what;
        } else {
            self->watched_sockets.emplace(socket, WatchedSocket{what, ++self->socket_generations});
        }
        return 0;
    });
}

bool WebRequestController::stillWatched(const ReadySocket& ready) {
    utilities::lock::lock_guard guard(&socket_mutex);
    auto found = watched_sockets.find(ready.socket);
    return found != watched_sockets.end() && found->second.generation == ready.generation;
}

bool WebRequestController::timerDue() {
    utilities::lock::lock_guard guard(&socket_mutex);
    return timer_due_ms >= 0 && timer_due_ms <= monotonicMs();
}

int WebRequestController::onTimer(CURLM*, long timeoutMs, void* controller) {
    auto* self = static_cast<WebRequestController*>(controller);
    utilities::lock::lock_guard guard(&self->socket_mutex);
    self->timer_due_ms = timeoutMs < 0 ? -1 : monotonicMs() + timeoutMs;
    return 0;
}

long long WebRequestController::timerDueMs() {
    utilities::lock::lock_guard guard(&socket_mutex);
    return timer_due_ms;
}

void WebRequestController::wake() {
    if (wake_fd < 0) return;
    const uint64_t one = 1;
    (void)!write(wake_fd, &one, sizeof one);  // a full counter still wakes the reader
}

// Sleeps on wake_cond until something was registered since the last pump,
// unless that pump ended with transfers still active. `running` is re-read
// under wake_mutex, which shutdown() holds while it clears the flag and
// signals, so a stop is never lost. `sleeping` is raised before the checks:
// a registration either is seen by them or sees the flag and signals, after
// taking wake_mutex, that is once this thread waits.
static void sleepUntilWork(WebRequestController& controller, uint64_t seen) {
    utilities::lock::lock_guard wakeGuard(&controller.wake_mutex);
    controller.sleeping.store(true);
    size_t registered = 0;
    {
        utilities::lock::lock_guard listGuard(&controller.list_mutex);
        registered = controller.requests.size();
    }
    const bool nothingNew = controller.work_notices.load() == seen;
    if ((registered == 0 || (controller.pump_idle && nothingNew)) && controller.running) {
        pthread_cond_wait(&controller.wake_cond, &controller.wake_mutex);
    }
    controller.sleeping.store(false);
}

// Between pumps. While owners have been registering their next request
// quickly (a caller looping over requests), the thread first waits for it
// yielding, as pollWatched does for sockets, and sleeps only after that.
// A quiet spell ends the yielding until a sleep is short again.
static void waitForWork(WebRequestController& controller, uint64_t& seen) {
    const long long start = webclient::monotonicMicros();
    auto workOrStop = [&] { return controller.work_notices.load() != seen || !controller.running; };
    const bool arrived =
        controller.last_idle_short ? webclient::yieldUntil(workOrStop, kReadySpinMicroseconds) : workOrStop();
    if (!arrived) sleepUntilWork(controller, seen);
    controller.last_idle_short = webclient::monotonicMicros() - start < kReadySpinMicroseconds;
    seen = controller.work_notices.load();
}

void* WebRequestController::run(void* controller) {
    auto* self = static_cast<WebRequestController*>(controller);
    uint64_t seen = 0;
    try {
        while (self->running) {
            waitForWork(*self, seen);
            self->processPendingRequests();
        }
        // A request registered between the last pump and the stop would
        // otherwise never run, and its owner would wait for its whole limit;
        // the stop waits for it as for any transfer still active.
        self->processPendingRequests();
    } catch (const Exception& error) {
        WC_LOG_DEBUG("<webRequestcontroller   run >exception %s", error.what());
    } catch (const std::exception& error) {
        // Anything else (an allocation failure) would otherwise leave the
        // thread's start routine and terminate the host.
        WC_LOG_ERROR("<webRequestcontroller   run >exception %s", error.what());
    } catch (...) {
        WC_LOG_ERROR("<webRequestcontroller   run >unknown exception");
    }
    WC_LOG_INFO("webRequestcontroller loop exit");
    return nullptr;
}

// One round of libcurl work: the sockets that poll() found ready, then any
// due timers (which also starts newly added transfers). Returns the number
// of active transfers.
static int driveTransfers(WebRequestController& controller) {
    int active = 0;
    // Each socket call also runs libcurl's expired timers and reports the
    // active count; a separate timer call is needed only when no socket call
    // ran or the timer is due. Events that were all dropped report nothing:
    // taking that as "none active" would leave quiet transfers undriven.
    bool socketCallRan = false;
    for (const auto& ready : controller.ready_sockets) {
        MultiReadGuard guard(&controller.multi_lock);
        // Checked under the multi lock, so no caller can close the socket
        // between the check and the call. An event polled on a descriptor
        // that was closed since (and maybe reused by a new connection) is
        // dropped; poll() reports a live socket's state again next round.
        if (!controller.stillWatched(ready)) continue;
        CURLMcode code = curl_multi_socket_action(controller.multi, ready.socket, ready.events, &active);
        socketCallRan = true;
        if (code != CURLM_OK) handleError(code);
    }
    controller.ready_sockets.clear();
    if (socketCallRan && !controller.timerDue()) return active;
    MultiReadGuard guard(&controller.multi_lock);
    CURLMcode code = curl_multi_socket_action(controller.multi, CURL_SOCKET_TIMEOUT, 0, &active);
    if (code != CURLM_OK) handleError(code);
    return active;
}

void WebRequestController::processPendingRequests() {
    // A start after a stop runs a thread with nothing to drive: the stop
    // released the multi handle for good.
    if (multi == nullptr) return;
    pump_idle = false;
    try {
        for (;;) {
            // Whatever was registered before this point is started below.
            pass_notices = work_notices.load();
            const int active = driveTransfers(*this);
            // Completions are drained after every pass, not only when the
            // active count drops: on a reused connection a new transfer can
            // start and finish within one libcurl call, leaving the count
            // unchanged, and its owner would wait for another transfer.
            queryMessages();
            if (active == 0) {
                pump_idle = true;
                return;
            }
            waitForSocketActivity();
        }
    } catch (const WebException&) {
        WC_LOG_DEBUG("processPendingRequests error");
        // The loop pumps again at once while requests stay registered; the
        // pause keeps a lasting multi error from making that a busy loop.
        sleepAfterIdleWait();
    } catch (const Exception&) {
        throw;  // ends the loop, as documented
    } catch (const std::exception& error) {
        // An allocation that failed once must not end the thread for good:
        // every later background request would then wait out its limit.
        WC_LOG_ERROR("processPendingRequests error %s", error.what());
        sleepAfterIdleWait();
    }
}

static bool noticedSincePass(const WebRequestController& controller) {
    return controller.work_notices.load() != controller.pass_notices;
}

// Waits for the watched sockets, or a registration since this pass began.
// While answers come quickly (a busy local server), the thread first polls
// without blocking for a short while, yielding in between: a blocking poll
// lets the processor go idle, and on a virtual machine waking it again costs
// more than the exchange itself. A blocking wait raises `polling` first and
// then looks at the count once more, so a registration either is seen here
// or sees the flag and writes the eventfd.
static int pollWatched(WebRequestController& controller, std::vector<pollfd>& watched, int boundMs) {
    const long long start = webclient::monotonicMicros();
    int ready = 0;
    if (controller.last_wait_short && boundMs != 0) {
        webclient::yieldUntil(
            [&] {
                return noticedSincePass(controller) || (ready = poll(watched.data(), watched.size(), 0)) != 0;
            },
            kReadySpinMicroseconds);
    }
    if (ready == 0 && !noticedSincePass(controller)) {
        controller.polling.store(true);
        if (!noticedSincePass(controller)) ready = poll(watched.data(), watched.size(), boundMs);
        controller.polling.store(false);
    }
    controller.last_wait_short = webclient::monotonicMicros() - start < kReadySpinMicroseconds;
    return ready;
}

void WebRequestController::waitForSocketActivity() {
    std::vector<pollfd> watched;
    std::vector<uint64_t> generations;
    long long timerDue = -1;
    {
        utilities::lock::lock_guard guard(&socket_mutex);
        timerDue = timer_due_ms;
        for (const auto& socket : watched_sockets) {
            short events = 0;
            if (socket.second.wish & CURL_POLL_IN) events |= POLLIN;
            if (socket.second.wish & CURL_POLL_OUT) events |= POLLOUT;
            watched.push_back(pollfd{socket.first, events, 0});
            generations.push_back(socket.second.generation);
        }
    }
    watched.push_back(pollfd{wake_fd, POLLIN, 0});
    // No lock is held here, so callers can add and remove handles meanwhile.
    const int ready = pollWatched(*this, watched, waitBoundMs(timerDue));
    if (ready < 0 && errno != EINTR) sleepAfterIdleWait();
    if (ready <= 0) return;
    for (size_t i = 0; i + 1 < watched.size(); ++i) {
        // POLLNVAL: closed while we slept; nothing of ours to report.
        const int events = curlEventsOf(watched[i].revents);
        if (events != 0) ready_sockets.push_back(ReadySocket{watched[i].fd, events, generations[i]});
    }
    if (watched.back().revents & POLLIN) {
        uint64_t drained = 0;
        (void)!read(wake_fd, &drained, sizeof drained);
    }
}

void WebRequestController::queryMessages() {
    MultiReadGuard guard(&multi_lock);
    int remaining = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
        if (message->msg != CURLMSG_DONE) continue;
        WebRequest* request = findRequest(message->easy_handle, false);
        if (request == nullptr) continue;
        request->impl->result = message->data.result;
        settleSeeOtherStop(*request);
        if (strnlen_s_helper(request->impl->error_buffer, CURL_ERROR_SIZE) != 0) {
            WC_LOG_ERROR("<queryMessages> error %s.", request->impl->error_buffer);
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
        if ((*it)->impl->curl_handle != handle) continue;
        WebRequest* found = *it;
        if (remove) requests.erase(it);
        return found;
    }
    return nullptr;
}

void WebRequestController::addRequest(WebRequest* request) {
    {
        // The list's entry is made first: once libcurl has the handle, the
        // request is listed by a step that cannot fail.
        std::list<WebRequest*> entry{request};
        MultiWriteGuard multiGuard(&multi_lock);
        // After a stop, refused as libcurl refuses a released multi handle.
        CURLMcode code = closed ? CURLM_BAD_HANDLE : curl_multi_add_handle(multi, request->impl->curl_handle);
        if (code != CURLM_OK) {
            WC_LOG_ERROR("curl_multi_add_handle error %d", static_cast<int>(code));
            handleError(code);
        }
        utilities::lock::lock_guard listGuard(&list_mutex);
        requests.splice(requests.end(), entry);
        request->impl->registered = true;
        WC_LOG_DEBUG("addRequest[%d] %s", static_cast<int>(requests.size()),
                     request->getPrintableUrl().c_str());
    }
    notifyTransferThread();
}

// Only a sleeping or polling transfer thread needs waking; a busy one sees
// the count before it next waits (see waitForWork, pollWatched). The first
// notice to find it asleep wakes it; later ones are seen when it reads the
// count after waking.
void WebRequestController::notifyTransferThread() {
    work_notices.fetch_add(1);
    if (sleeping.exchange(false)) {
        { utilities::lock::lock_guard wakeGuard(&wake_mutex); }
        // After the unlock, so that the woken thread does not block on it.
        pthread_cond_signal(&wake_cond);
    }
    if (polling.load()) wake();
}

void WebRequestController::shutdown() {
    utilities::lock::lock_guard lifecycleGuard(&lifecycle_mutex);
    if (thread != 0) {
        MultiWriteGuard guard(&multi_lock);
        closed = true;
    }
    {
        utilities::lock::lock_guard wakeGuard(&wake_mutex);
        running = false;
        pthread_cond_signal(&wake_cond);
    }
    wake();
    if (thread == 0) return;
    pthread_join(thread, nullptr);
    thread = 0;
    if (multi == nullptr) return;
    WebHandleManager::getInstance()->ClearWebHandle();
    {
        // An owner may be unregistering its request right now (closeRequest).
        MultiWriteGuard guard(&multi_lock);
        curl_multi_cleanup(multi);
        multi = nullptr;
    }
    curl_global_cleanup();
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

namespace {

// Releases what the controller's constructor made, then the controller.
void destroyController(WebRequestController* controller) {
    pthread_mutex_destroy(&controller->list_mutex);
    pthread_mutex_destroy(&controller->wake_mutex);
    pthread_cond_destroy(&controller->wake_cond);
    pthread_rwlock_destroy(&controller->multi_lock);
    pthread_mutex_destroy(&controller->socket_mutex);
    pthread_mutex_destroy(&controller->lifecycle_mutex);
    if (controller->wake_fd >= 0) close(controller->wake_fd);
    delete controller;
}

}  // namespace

WebRequestManager::WebRequestManager() : controller(new WebRequestController()) {
    if (controller->wake_fd < 0) {
        // Without it a new request would wait for the socket wait to time
        // out before it starts. A later getInstance() tries again.
        const std::string reason = std::string("Failed to create the wake-up descriptor: ") + strerror(errno);
        destroyController(controller);
        throw WebException(reason, nullptr);
    }
    curl_global_init(CURL_GLOBAL_ALL);
    CURLM* multi = curl_multi_init();
    if (multi == nullptr) {
        // A later getInstance() tries again; each try must not leave a
        // descriptor behind.
        curl_global_cleanup();
        destroyController(controller);
        throw WebException("Failed to initialize libcurl.", nullptr);
    }
    const bool onSwitch =
        kpu_utilities::system_info::GetPlatformInfo().find(kSwitchPlatform) != std::string::npos;
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS,
                      onSwitch ? kSwitchMaxConnections : kDefaultMaxConnections);
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &WebRequestController::onSocket);
    curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, controller);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &WebRequestController::onTimer);
    curl_multi_setopt(multi, CURLMOPT_TIMERDATA, controller);
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
    destroyController(controller);
}

void WebRequestManager::initBackEnd() {
    {
        utilities::lock::lock_guard lifecycleGuard(&controller->lifecycle_mutex);
        if (controller->running.exchange(true)) return;
        WC_LOG_DEBUG("will start the backend download threads ");
        int error = pthread_create(&controller->thread, nullptr, &WebRequestController::run, controller);
        if (error != 0) {
            WC_LOG_ERROR("startBackend create pthread failed %d", error);
            exit(-1);
        }
        // Named so that operators (and the benchmark) can find it in /proc.
        (void)pthread_setname_np(controller->thread, "webclient-xfer");
    }
    WC_LOG_DEBUG("wait for the webclient start");
    webclient::sleepWholeSeconds(kStartupSettleSeconds);
}

void WebRequestManager::stopBackEnd() {
    // The transfer thread cannot wait for itself to end.
    if (webclient::insideTransferCallback()) {
        WC_LOG_ERROR("stopBackEnd called inside a transfer callback: ignored");
        return;
    }
    controller->shutdown();
}

void WebRequestManager::beginRequest(WebRequest* request) {
    if (request == nullptr) throw WebException("beginRequest without a request", nullptr);
    if (webclient::insideTransferCallback()) refuseRequest(*request, "called inside a transfer callback");
    controller->addRequest(request);
}

void WebRequestManager::closeRequest(WebRequest* request) {
    if (request == nullptr) return;
    CURL* handle = request->impl->curl_handle;
    if (controller->findRequest(handle, true) == nullptr) return;
    request->impl->registered = false;
    bool timerBroughtForward = false;
    {
        MultiWriteGuard guard(&controller->multi_lock);
        // After a stop the multi handle is gone and its cleanup let go of ours.
        if (controller->multi == nullptr) return;
        const long long dueBefore = controller->timerDueMs();
        CURLMcode code = curl_multi_remove_handle(controller->multi, handle);
        if (code != CURLM_OK) {
            WC_LOG_ERROR("curl_multi_remove_handle error: %d", static_cast<int>(code));
            handleError(code);
        }
        const long long dueAfter = controller->timerDueMs();
        timerBroughtForward = dueAfter >= 0 && (dueBefore < 0 || dueAfter < dueBefore);
    }
    // A removal that frees a connection lets a transfer held back by the
    // connection limit start, and libcurl asks for its timer at once. The
    // thread, polling with the bound it computed before, would not notice.
    if (timerBroughtForward) controller->notifyTransferThread();
}
