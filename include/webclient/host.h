// Interfaces that libwebclient imports from the host agent.
//
// The library ships small stand-ins for all of them, exported with default
// visibility. The dynamic linker binds every module of a process to the
// first definition in its lookup order: a host's own definitions replace
// the stand-ins only when they come first (in the executable, or in a
// library loaded before this one; with --as-needed a library the executable
// does not itself use is dropped from its list and loaded later). Otherwise
// the stand-ins serve the host's other modules too. The functions under
// "Stand-in controls" exist only in the stand-ins: they let a host or a test
// capture log lines, choose the log level and register the progress-report
// sender.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "webclient/export.h"

// Module number under which every log line of this library is written.
#define WEBCLIENT_LOG_MODULE 18

extern "C" {
// Host logger: module number, printf format, arguments. One line per call.
WEBCLIENT_API void orb_log_debug(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
WEBCLIENT_API void orb_log_info(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
WEBCLIENT_API void orb_log_warning(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
WEBCLIENT_API void orb_log_error(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// Host debug channel (no module number).
WEBCLIENT_API void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Bounds-checked memory helpers; return 0 on success, non-zero (and do
// nothing harmful) when the arguments do not fit.
WEBCLIENT_API int memcpy_s_helper(void* dest, size_t destsz, const void* src, size_t count);
WEBCLIENT_API int memset_s_helper(void* dest, size_t destsz, int ch, size_t count);
WEBCLIENT_API size_t strnlen_s_helper(const char* str, size_t strsz);

// Writes a backtrace of the calling thread to standard error.
WEBCLIENT_API void print_back_trace(void);
}

namespace kpu_utilities {
namespace system_info {
// Platform description; contains "linux-kv210-kv410_armhf" on the switch.
// Stand-in: $WEBCLIENT_PLATFORM when set, else "linux-<machine>" from uname.
WEBCLIENT_API std::string GetPlatformInfo();
}  // namespace system_info
namespace string_con {
// True when the URL names its host by a domain name; false for an IPv4
// dotted quad or a bracketed IPv6 literal (user info and port allowed).
WEBCLIENT_API bool IsDomainInUrl(const std::string& url);
}  // namespace string_con
}  // namespace kpu_utilities

// Pieces of `text` between occurrences of `separator`, empty pieces kept.
WEBCLIENT_API std::vector<std::string> split(const char* text, const char* separator);
// Heap copy of a NUL-terminated string; release it with free(). Null in, null out.
WEBCLIENT_API char* Strdup(const char* text);
// Application-data directory: $WEBCLIENT_APPDATA_DIR or "/var/lib/webclient".
WEBCLIENT_API const char* GetAppDataDir();
// Non-zero when `path` names an existing file.
WEBCLIENT_API int isFileExist(const char* path);

// The host's message sender for progress reports; may be empty (no channel).
using SalSendFunction = std::function<void(const char* message)>;
WEBCLIENT_API SalSendFunction GetSalSend();

// ---- Stand-in controls -------------------------------------------------

enum WebClientLogLevel { WEBCLIENT_LOG_DEBUG = 0, WEBCLIENT_LOG_INFO = 1,
                         WEBCLIENT_LOG_WARNING = 2, WEBCLIENT_LOG_ERROR = 3 };

// Receives (level, module, text) for every line at or above the threshold
// instead of standard error. `module` is -1 for lines of the host `debug`.
// Called on whichever thread logs; must be thread-safe. A line it logs
// itself goes to standard error.
using WebClientLogSink = std::function<void(int level, int module, const std::string& text)>;
// Installs `sink` (an empty function restores standard error). Returns once
// no call of the replaced sink is running, so its state may then be freed:
// do not hold a lock the sink takes while you replace it. A call from
// inside the sink is ignored.
WEBCLIENT_API void SetWebClientLogSink(WebClientLogSink sink);
// Threshold; the default comes from $WEBCLIENT_LOG_LEVEL
// (debug|info|warning|error), else warning. Setting -1 makes the next line
// read the environment again.
WEBCLIENT_API void SetWebClientLogLevel(int level);
WEBCLIENT_API int GetWebClientLogLevel();
// Registers the sender that GetSalSend() returns (empty: none).
WEBCLIENT_API void SetSalSend(SalSendFunction sender);
