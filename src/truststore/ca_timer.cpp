// The expiry timer: a one-shot POSIX timer whose SIGALRM lets the ready
// state lapse.
//
// Nothing but an async-signal-safe write runs in signal context: `wrapper`
// puts the signal number into a self-pipe, and a relay thread of the trust
// store's own reads it and runs `timer_callback` (TimerCb), which logs and
// takes status_mutex like any other thread. The signal may land on a thread
// that holds status_mutex inside DownloadTask; the relay then simply waits
// for that refresh to finish before it resets the status.
//
// The relay thread holds the callback mutex while TimerCb runs (and waits
// for status_mutex), so a manager cannot go away mid-call. StartTimer
// rebinds the callback under that mutex, so while an expiry is being
// delivered during a refresh it waits for that refresh too; a CA handler
// (which runs inside a refresh) must therefore not call StartTimer.
// StopTimer takes no callback mutex and never waits.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "truststore/trust_locks.h"
#include "truststore/truststore_internal.h"
#include "util/log.h"
#include "util/standard_descriptors.h"
#include "webclient/ca_bundle.h"

std::function<void(int)> timer_callback;  // guarded by g_callbackMutex

namespace {

constexpr time_t kExpirySeconds = 600;
constexpr unsigned char kStopRelay = 0;  // no signal has number 0

// The self-pipe's write end, read by `wrapper` in signal context. The pipe
// lives until the process ends, so the handler can never write into a
// descriptor number that was closed and handed out again.
std::atomic<int> g_relayWriteFd{-1};
int g_relayReadFd = -1;  // guarded by g_relayMutex

std::mutex g_callbackMutex;
std::mutex g_relayMutex;
// The timer, the relay thread and the pipe belong to the process that made
// them. A child made by fork() inherits the pointers and the pipe, but no
// timer and no thread, and the locks here may have been held at the fork by
// threads that do not exist in it.
std::atomic<pid_t> g_ownerPid{0};
std::thread* g_relayThread = nullptr;           // guarded by g_relayMutex
const CaBundleManager* g_relayOwner = nullptr;  // guarded by g_relayMutex
// Managers whose timer exists (untyped: keeps the instantiation private).
std::vector<const void*> g_liveTimers;  // guarded by g_relayMutex

void claimForThisProcess() {
    pid_t none = 0;
    (void)g_ownerPid.compare_exchange_strong(none, getpid());
}

// Async-signal-safe: read by `wrapper` too.
bool inForkedChild() {
    const pid_t owner = g_ownerPid.load(std::memory_order_relaxed);
    return owner != 0 && owner != getpid();
}

bool hasTimer(const CaBundleManager* manager) {
    std::lock_guard<std::mutex> guard(g_relayMutex);
    return std::find(g_liveTimers.begin(), g_liveTimers.end(), manager) != g_liveTimers.end();
}

void deliver(int signo) {
    std::lock_guard<std::mutex> guard(g_callbackMutex);
    if (!timer_callback) {
        WC_LOG_ERROR("[wrapper] no timer callback for signal %d", signo);
        return;
    }
    timer_callback(signo);
}

void relayLoop(int readFd) {
    for (;;) {
        unsigned char signo = kStopRelay;
        const ssize_t got = ::read(readFd, &signo, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || signo == kStopRelay) return;
        deliver(signo);
    }
}

// Caller holds g_relayMutex.
bool openSelfPipe() {
    if (g_relayReadFd >= 0) return true;
    // On a free 1 and 2 the pipe would read every line written to standard
    // error as a signal, and its delivery would write the next.
    webclient::occupyFreeStandardDescriptors();
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    // A burst of signals must never block the handler.
    (void)fcntl(fds[1], F_SETFL, O_NONBLOCK);
    g_relayReadFd = fds[0];
    g_relayWriteFd.store(fds[1]);
    return true;
}

// Binds timer_callback to `manager` and starts the relay thread if none
// runs. False when the relay cannot run.
bool startRelay(CaBundleManager* manager) {
    {
        std::lock_guard<std::mutex> guard(g_callbackMutex);
        timer_callback = std::bind(&CaBundleManager::TimerCb, manager, std::placeholders::_1);
    }
    std::lock_guard<std::mutex> guard(g_relayMutex);
    if (!openSelfPipe()) return false;
    g_relayOwner = manager;
    if (g_relayThread != nullptr) return true;
    try {
        g_relayThread = new std::thread(relayLoop, g_relayReadFd);
    } catch (const std::exception&) {  // no thread or no memory: no expiry
        return false;
    }
    return true;
}

// Stops and joins the relay thread when `manager` owns it: its TimerCb must
// not run once the manager is gone.
void stopRelay(const CaBundleManager* manager) {
    std::thread* thread = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_relayMutex);
        if (g_relayOwner != manager || g_relayThread == nullptr) return;
        g_relayOwner = nullptr;
        std::swap(thread, g_relayThread);
    }
    {
        // Waits for a TimerCb of this manager that is under way.
        std::lock_guard<std::mutex> guard(g_callbackMutex);
        timer_callback = nullptr;
    }
    const unsigned char stop = kStopRelay;
    const ssize_t written = ::write(g_relayWriteFd.load(), &stop, 1);
    // Join only a thread that will see the stop byte; one pending signal
    // byte ahead of it is harmless (timer_callback is already empty).
    if (written == 1) {
        thread->join();
    } else {
        thread->detach();
    }
    delete thread;
}

}  // namespace

namespace truststore {

void create_expiry_timer(CaBundleManager& manager) {
    claimForThisProcess();
    // No sigevent: expiry is delivered as SIGALRM.
    if (timer_create(CLOCK_REALTIME, nullptr, &manager.timer_id) != 0) {
        WC_LOG_ERROR("[CaBundleManager] timer_create failed. errno: %d", errno);
        return;
    }
    std::lock_guard<std::mutex> guard(g_relayMutex);
    g_liveTimers.push_back(&manager);
}

void delete_expiry_timer(CaBundleManager& manager) {
    // A forked child that exits must not touch what it inherited: a stop
    // byte would end the parent's relay through the shared pipe.
    if (inForkedChild()) return;
    stopRelay(&manager);
    if (!hasTimer(&manager)) return;
    {
        std::lock_guard<std::mutex> guard(g_relayMutex);
        g_liveTimers.erase(std::remove(g_liveTimers.begin(), g_liveTimers.end(), &manager),
                           g_liveTimers.end());
    }
    (void)timer_delete(manager.timer_id);  // a valid timer; nothing to report
}

}  // namespace truststore

void wrapper(int signal) {
    const int savedErrno = errno;
    const int fd = g_relayWriteFd.load(std::memory_order_relaxed);
    // In a forked child the pipe leads to the parent's relay. The relay
    // reads a zero byte as its own stop: only signal numbers go through.
    if (fd >= 0 && signal > 0 && signal <= 0xff && !inForkedChild()) {
        const unsigned char signo = static_cast<unsigned char>(signal);
        const ssize_t written = ::write(fd, &signo, 1);
        (void)written;  // a full pipe already holds a wake-up for the relay
    }
    errno = savedErrno;
}

void CaBundleManager::StartTimer() {
    WC_LOG_DEBUG("%s\n", "StartTimer");
    if (inForkedChild()) {
        WC_LOG_ERROR("[StartTimer] the expiry timer stays with the process that made it, not a forked child");
        return;
    }
    if (!startRelay(this)) {
        WC_LOG_ERROR("[StartTimer] cannot relay the timer signal. errno: %d", errno);
        return;
    }
    (void)signal(SIGALRM, wrapper);  // SIGALRM always has a handler slot
    if (!hasTimer(this)) return;
    itimerspec expiry{};
    expiry.it_value.tv_sec = kExpirySeconds;
    if (timer_settime(timer_id, 0, &expiry, nullptr) != 0)
        WC_LOG_ERROR("[StartTimer] timer_settime failed. errno: %d", errno);
}

void CaBundleManager::StopTimer() {
    WC_LOG_INFO("%s \n", "StopTimer");
    if (inForkedChild() || !hasTimer(this)) return;
    const itimerspec disarmed{};
    (void)timer_settime(timer_id, 0, &disarmed, nullptr);  // disarming a valid timer cannot fail
}

void CaBundleManager::TimerCb(int signal) {
    WC_LOG_INFO(" Catched timer signal: %d ... !!\n", signal);
    truststore::Lock lock(status_mutex);
    bundle_status = 0;
}
