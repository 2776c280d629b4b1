// Stand-in for the host agent's logger: one line per call on standard
// error as "<level> [<module>] <text>" ("debug <text>" for the host's
// debug channel), or to a sink installed by a host or a test.
#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/lock_guard.h"
#include "webclient/host.h"

namespace {

constexpr int kLevelUnset = -1;
constexpr int kHostDebugModule = -1;

std::atomic<int> g_threshold{kLevelUnset};

// Set while this thread runs the sink: replacing the sink from there would
// wait for the very call it is made from, and a line the sink logs itself
// goes to standard error.
thread_local bool t_in_sink = false;

// The installed sink. A sink is called under the read lock, so replacing
// it waits for the calls in flight: its owner may free what it uses as soon
// as it is replaced (a test's capture does). Writers go first, or threads
// that log without pause would keep a replacement waiting. Made once and
// never destroyed: host threads may still log during exit().
struct SinkSlot {
    SinkSlot() { initLock(); }
    void initLock() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    pthread_rwlock_t lock;
    // Held around the swap, and across fork(): a child must not start with
    // a half-swapped sink.
    pthread_mutex_t swapping = PTHREAD_MUTEX_INITIALIZER;
    WebClientLogSink sink;  // guarded by lock
};

// For the fork handlers, which must not wait for the slot's construction.
std::atomic<SinkSlot*> g_forkSlot{nullptr};

void beforeFork() {
    if (SinkSlot* slot = g_forkSlot.load()) pthread_mutex_lock(&slot->swapping);
}

void afterForkInParent() {
    if (SinkSlot* slot = g_forkSlot.load()) pthread_mutex_unlock(&slot->swapping);
}

// The child has one thread: the lock, if another thread held it at the
// fork, would stay held for good. It starts with a fresh one, read-held
// again when the fork was made from inside the sink (whose guard will
// release it).
void afterForkInChild() {
    SinkSlot* slot = g_forkSlot.load();
    if (slot == nullptr) return;
    slot->initLock();
    if (t_in_sink) pthread_rwlock_rdlock(&slot->lock);
    pthread_mutex_unlock(&slot->swapping);
}

SinkSlot& sinkSlot() {
    static SinkSlot* const slot = [] {
        SinkSlot* made = new SinkSlot();
        g_forkSlot.store(made);
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
        return made;
    }();
    return *slot;
}

int levelFromEnvironment() {
    const char* value = std::getenv("WEBCLIENT_LOG_LEVEL");
    if (value == nullptr) return WEBCLIENT_LOG_WARNING;
    if (std::strcmp(value, "debug") == 0) return WEBCLIENT_LOG_DEBUG;
    if (std::strcmp(value, "info") == 0) return WEBCLIENT_LOG_INFO;
    if (std::strcmp(value, "error") == 0) return WEBCLIENT_LOG_ERROR;
    return WEBCLIENT_LOG_WARNING;
}

int threshold() {
    int level = g_threshold.load(std::memory_order_relaxed);
    if (level == kLevelUnset) {
        int expected = kLevelUnset;
        g_threshold.compare_exchange_strong(expected, levelFromEnvironment());
        level = g_threshold.load(std::memory_order_relaxed);
    }
    return level;
}

const char* levelName(int level) {
    switch (level) {
    case WEBCLIENT_LOG_DEBUG: return "debug";
    case WEBCLIENT_LOG_INFO: return "info";
    case WEBCLIENT_LOG_WARNING: return "warning";
    default: return "error";
    }
}

std::string formatText(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) return std::string();
    std::string text;
    if (static_cast<size_t>(needed) < sizeof small) {
        text.assign(small, static_cast<size_t>(needed));
    } else {
        text.resize(static_cast<size_t>(needed) + 1);
        std::vsnprintf(&text[0], text.size(), format, args);
        text.resize(static_cast<size_t>(needed));
    }
    // Formats such as "SSL VERIFYRESULT=%lu:%s\n" end in a newline; a log
    // line carries none of its own.
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

void writeToStderr(int level, int module, const std::string& text) {
    if (module == kHostDebugModule) {
        std::fprintf(stderr, "debug %s\n", text.c_str());
    } else {
        std::fprintf(stderr, "%s [%d] %s\n", levelName(level), module, text.c_str());
    }
}

void write(int level, int module, const std::string& text) {
    if (t_in_sink) return writeToStderr(level, module, text);
    SinkSlot& slot = sinkSlot();
    utilities::lock::lock_guard_read reading(&slot.lock);
    if (!slot.sink) return writeToStderr(level, module, text);
    struct InSink {
        InSink() { t_in_sink = true; }
        ~InSink() { t_in_sink = false; }
    } inSink;
    slot.sink(level, module, text);
}

// Logging never ends its caller: a line that cannot be made (no memory) or
// a sink that throws is dropped, and a cancellation waits until the line is
// written. The library logs from exception handlers inside functions that
// must not throw, where a cancellation's unwinding would end the process.
void emit(int level, int module, const char* format, va_list args) noexcept {
    if (level < threshold()) return;  // most debug lines: nothing else to do
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    try {
        write(level, module, formatText(format, args));
    } catch (...) {
    }
    pthread_setcancelstate(cancelState, nullptr);
}

}  // namespace

#define WC_DEFINE_LOGGER(name, level)                       \
    extern "C" void name(int module, const char* format, ...) { \
        va_list args;                                       \
        va_start(args, format);                             \
        emit(level, module, format, args);                  \
        va_end(args);                                       \
    }

WC_DEFINE_LOGGER(orb_log_debug, WEBCLIENT_LOG_DEBUG)
WC_DEFINE_LOGGER(orb_log_info, WEBCLIENT_LOG_INFO)
WC_DEFINE_LOGGER(orb_log_warning, WEBCLIENT_LOG_WARNING)
WC_DEFINE_LOGGER(orb_log_error, WEBCLIENT_LOG_ERROR)

extern "C" void debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(WEBCLIENT_LOG_DEBUG, kHostDebugModule, format, args);
    va_end(args);
}

void SetWebClientLogSink(WebClientLogSink sink) {
    if (t_in_sink) {
        std::fprintf(stderr, "SetWebClientLogSink called from inside the log sink: ignored\n");
        return;
    }
    SinkSlot& slot = sinkSlot();
    utilities::lock::lock_guard_write writing(&slot.lock);
    utilities::lock::lock_guard swapGuard(&slot.swapping);
    std::swap(slot.sink, sink);
    // The replaced sink (now in `sink`) is destroyed after the lock is released.
}

void SetWebClientLogLevel(int level) { g_threshold.store(level, std::memory_order_relaxed); }

int GetWebClientLogLevel() { return threshold(); }
