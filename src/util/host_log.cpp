// Stand-in for the host agent's logger: one line per call on standard
// error as "<level> [<module>] <text>" ("debug <text>" for the host's
// debug channel), or to a sink installed by a host or a test.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "webclient/host.h"

namespace {

constexpr int kLevelUnset = -1;
constexpr int kHostDebugModule = -1;

std::atomic<int> g_threshold{kLevelUnset};
std::mutex g_sink_mutex;
WebClientLogSink g_sink;  // guarded by g_sink_mutex

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

void emit(int level, int module, const char* format, va_list args) {
    if (level < threshold()) return;
    std::string text = formatText(format, args);
    WebClientLogSink sink;
    {
        std::lock_guard<std::mutex> guard(g_sink_mutex);
        sink = g_sink;
    }
    if (sink) {
        sink(level, module, text);
    } else if (module == kHostDebugModule) {
        std::fprintf(stderr, "debug %s\n", text.c_str());
    } else {
        std::fprintf(stderr, "%s [%d] %s\n", levelName(level), module, text.c_str());
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
    std::lock_guard<std::mutex> guard(g_sink_mutex);
    g_sink = std::move(sink);
}

void SetWebClientLogLevel(int level) { g_threshold.store(level, std::memory_order_relaxed); }

int GetWebClientLogLevel() { return threshold(); }
