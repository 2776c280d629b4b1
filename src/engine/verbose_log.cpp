#include "engine/verbose_log.h"

#include <strings.h>

#include "util/log.h"
#include "webclient/web_request.h"

namespace {

const char* const kSecretHeaders[] = {"Authorization:", "Proxy-Authorization:", "Cookie:", "Set-Cookie:"};

const char* prefixFor(curl_infotype type) {
    switch (type) {
    case CURLINFO_HEADER_IN: return "< ";
    case CURLINFO_HEADER_OUT: return "> ";
    default: return "* ";
    }
}

}  // namespace

std::string maskVerboseLine(const std::string& line) {
    for (const char* name : kSecretHeaders) {
        const size_t length = std::char_traits<char>::length(name);
        if (line.size() >= length && strncasecmp(line.c_str(), name, length) == 0) {
            return line.substr(0, length) + " ***";
        }
    }
    return get_printable_url(line);
}

int logVerboseLine(CURL*, curl_infotype type, char* data, size_t size, void*) {
    if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT) return 0;
    const std::string text(data, size);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) WC_LOG_DEBUG("%s%s", prefixFor(type), maskVerboseLine(line).c_str());
        start = end + 1;
    }
    return 0;
}
