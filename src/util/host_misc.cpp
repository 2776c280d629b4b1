// Stand-ins for the host agent's utility functions: platform description,
// URL classification, string and memory helpers, the progress sender.
#include <execinfo.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "util/sigpipe_shield.h"
#include "webclient/host.h"

namespace {

std::mutex g_sender_mutex;
SalSendFunction g_sender;  // guarded by g_sender_mutex

bool isDottedQuad(const std::string& host) {
    int parts = 0;
    size_t pos = 0;
    while (pos <= host.size()) {
        size_t end = host.find('.', pos);
        if (end == std::string::npos) end = host.size();
        size_t len = end - pos;
        if (len == 0 || len > 3) return false;
        int value = 0;
        for (size_t i = pos; i < end; ++i) {
            if (host[i] < '0' || host[i] > '9') return false;
            value = value * 10 + (host[i] - '0');
        }
        if (value > 255) return false;
        ++parts;
        pos = end + 1;
        if (end == host.size()) break;
    }
    return parts == 4;
}

// The host part of a URL: after "scheme://" and any "user@", before the
// port or path.
std::string hostOfUrl(const std::string& url, bool& bracketed) {
    size_t start = url.find("://");
    start = (start == std::string::npos) ? 0 : start + 3;
    size_t end = url.find_first_of("/?#", start);
    std::string authority = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    size_t at = authority.rfind('@');
    if (at != std::string::npos) authority.erase(0, at + 1);
    bracketed = !authority.empty() && authority[0] == '[';
    if (bracketed) return authority;
    return authority.substr(0, authority.find(':'));
}

}  // namespace

namespace kpu_utilities {
namespace system_info {

std::string GetPlatformInfo() {
    const char* configured = std::getenv("WEBCLIENT_PLATFORM");
    if (configured != nullptr && *configured != '\0') return configured;
    struct utsname names;
    if (uname(&names) != 0) return "linux";
    return std::string("linux-") + names.machine;
}

}  // namespace system_info

namespace string_con {

bool IsDomainInUrl(const std::string& url) {
    bool bracketed = false;
    std::string host = hostOfUrl(url, bracketed);
    if (bracketed || host.empty()) return false;
    return !isDottedQuad(host);
}

}  // namespace string_con
}  // namespace kpu_utilities

std::vector<std::string> split(const char* text, const char* separator) {
    std::vector<std::string> pieces;
    if (text == nullptr) return pieces;
    std::string whole(text);
    size_t sepLen = (separator == nullptr) ? 0 : std::strlen(separator);
    if (sepLen == 0) {
        pieces.push_back(whole);
        return pieces;
    }
    size_t pos = 0;
    for (size_t hit = whole.find(separator, pos); hit != std::string::npos;
         hit = whole.find(separator, pos)) {
        pieces.push_back(whole.substr(pos, hit - pos));
        pos = hit + sepLen;
    }
    pieces.push_back(whole.substr(pos));
    return pieces;
}

char* Strdup(const char* text) { return text == nullptr ? nullptr : ::strdup(text); }

const char* GetAppDataDir() {
    const char* configured = std::getenv("WEBCLIENT_APPDATA_DIR");
    return (configured != nullptr && *configured != '\0') ? configured : "/var/lib/webclient";
}

int isFileExist(const char* path) {
    struct stat info;
    return (path != nullptr && ::stat(path, &info) == 0) ? 1 : 0;
}

SalSendFunction GetSalSend() {
    std::lock_guard<std::mutex> guard(g_sender_mutex);
    return g_sender;
}

void SetSalSend(SalSendFunction sender) {
    std::lock_guard<std::mutex> guard(g_sender_mutex);
    g_sender = std::move(sender);
}

extern "C" void print_back_trace(void) {
    void* frames[64];
    int count = backtrace(frames, 64);
    webclient::SigpipeShield shield;  // standard error may be a pipe with no reader left
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
}

extern "C" int memcpy_s_helper(void* dest, size_t destsz, const void* src, size_t count) {
    if (dest == nullptr || src == nullptr) return EINVAL;
    if (count > destsz) return ERANGE;
    std::memmove(dest, src, count);
    return 0;
}

extern "C" int memset_s_helper(void* dest, size_t destsz, int ch, size_t count) {
    if (dest == nullptr) return EINVAL;
    std::memset(dest, ch, count > destsz ? destsz : count);
    return count > destsz ? ERANGE : 0;
}

extern "C" size_t strnlen_s_helper(const char* str, size_t strsz) {
    return str == nullptr ? 0 : ::strnlen(str, strsz);
}
