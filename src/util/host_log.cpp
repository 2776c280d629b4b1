// Stand-in for the host agent's logger: one line per call on standard
// error as "<level> [<module>] <text>" ("debug <text>" for the host's
// debug channel), or to a sink installed by a host or a test.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "util/lock_guard.h"
#include "util/sigpipe_shield.h"
#include "webclient/host.h"

namespace {

constexpr int kLevelUnset = -1;
constexpr int kHostDebugModule = -1;

std::atomic<int> g_threshold{kLevelUnset};

// A sink as installed, with the number of calls running it. Calls run with
// no lock held, so a sink may wait for another thread that logs, even while
// a replacement is pending. Replacing the sink waits until the replaced one
// has no call left: its owner may free what it uses as soon as it is
// replaced (a test's capture does).
struct InstalledSink {
    explicit InstalledSink(WebClientLogSink function) : sink(std::move(function)) {}
    WebClientLogSink sink;
    int calls = 0;  // guarded by SinkSlot::mutex
};

// Constant-initialized and trivially destroyed: no guard a fork could leave
// half-taken, and host threads may still log during exit().
struct SinkSlot {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // held only for a few stores
    pthread_cond_t callEnded = PTHREAD_COND_INITIALIZER;
    // Guarded by mutex; atomic for the fork handler, which reads it without.
    std::atomic<InstalledSink*> current{nullptr};
    // The process whose threads the mutex and call counts belong to; 0 until
    // the fork handler is registered.
    std::atomic<pid_t> owner{0};
};

SinkSlot g_slot;

// The sink this thread is running: replacing the sink from there would wait
// for the very call it is made from, and a line the sink logs itself goes
// to standard error.
thread_local InstalledSink* t_running = nullptr;

// The child has one thread: the mutex may have been held at the fork by a
// thread it does not have, calls other threads were making will never end,
// and a waiting replacement is gone. Plain stores only, as between fork()
// and exec(). Runs again from sinkSlot() when a fork handler registered
// before ours logs: the child still has one thread then.
void afterForkInChild() {
    SinkSlot* slot = &g_slot;
    static const pthread_mutex_t freshMutex = PTHREAD_MUTEX_INITIALIZER;
    static const pthread_cond_t freshCondition = PTHREAD_COND_INITIALIZER;
    slot->mutex = freshMutex;
    slot->callEnded = freshCondition;
    InstalledSink* current = slot->current.load();
    if (current != nullptr) current->calls = (t_running == current) ? 1 : 0;
    slot->owner.store(getpid());
}

SinkSlot& sinkSlot() {
    pid_t self = getpid();
    pid_t owner = g_slot.owner.load();
    if (owner == 0 && g_slot.owner.compare_exchange_strong(owner, self)) {
        pthread_atfork(nullptr, nullptr, afterForkInChild);
        owner = self;
    }
    if (owner != self) afterForkInChild();  // our fork handler has not run yet
    return g_slot;
}

// Waits run to their end: a cancellation inside one would leave a call in
// flight on a sink being freed, or end a function that must not throw.
class CancellationDeferred {
public:
    CancellationDeferred() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
    ~CancellationDeferred() { pthread_setcancelstate(previous_, nullptr); }
    CancellationDeferred(const CancellationDeferred&) = delete;
    CancellationDeferred& operator=(const CancellationDeferred&) = delete;

private:
    int previous_ = PTHREAD_CANCEL_ENABLE;
};

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
        webclient::printToStderr("debug %s\n", text.c_str());
    } else {
        webclient::printToStderr("%s [%d] %s\n", levelName(level), module, text.c_str());
    }
}

InstalledSink* enterSink(SinkSlot& slot) {
    utilities::lock::lock_guard guard(&slot.mutex);
    InstalledSink* current = slot.current.load();
    if (current != nullptr) ++current->calls;
    return current;
}

void leaveSink(SinkSlot& slot, InstalledSink* installed) {
    utilities::lock::lock_guard guard(&slot.mutex);
    if (--installed->calls == 0 && installed != slot.current.load()) pthread_cond_broadcast(&slot.callEnded);
}

void write(int level, int module, const std::string& text) {
    if (t_running != nullptr) return writeToStderr(level, module, text);
    SinkSlot& slot = sinkSlot();
    InstalledSink* installed = enterSink(slot);
    if (installed == nullptr) return writeToStderr(level, module, text);
    struct Running {
        Running(SinkSlot& s, InstalledSink* i) : slot(s), installed(i) { t_running = installed; }
        ~Running() {
            t_running = nullptr;
            leaveSink(slot, installed);
        }
        SinkSlot& slot;
        InstalledSink* installed;
    } running(slot, installed);
    installed->sink(level, module, text);
}

// Logging never ends its caller: a line that cannot be made (no memory) or
// a sink that throws is dropped, and a cancellation waits until the line is
// written. The library logs from exception handlers inside functions that
// must not throw, where a cancellation's unwinding would end the process.
void emit(int level, int module, const char* format, va_list args) noexcept {
    if (level < threshold()) return;  // most debug lines: nothing else to do
    CancellationDeferred deferred;
    try {
        write(level, module, formatText(format, args));
    } catch (...) {
    }
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
    if (t_running != nullptr) {
        webclient::printToStderr("SetWebClientLogSink called from inside the log sink: ignored\n");
        return;
    }
    std::unique_ptr<InstalledSink> next(sink ? new InstalledSink(std::move(sink)) : nullptr);
    std::unique_ptr<InstalledSink> replaced;
    SinkSlot& slot = sinkSlot();
    {
        CancellationDeferred deferred;
        utilities::lock::lock_guard guard(&slot.mutex);
        replaced.reset(slot.current.exchange(next.release()));
        while (replaced && replaced->calls > 0) pthread_cond_wait(&slot.callEnded, &slot.mutex);
    }
    // The replaced sink is destroyed after the lock is released.
}

void SetWebClientLogLevel(int level) { g_threshold.store(level, std::memory_order_relaxed); }

int GetWebClientLogLevel() { return threshold(); }
