#include "engine/verbose_log.h"

#include <algorithm>
#include <iterator>

#include "engine/url_masking.h"
#include "util/callback_barrier.h"
#include "util/log.h"

namespace {

// A response header whose name contains one of these carries a credential:
// the standard ones (Set-Cookie, WWW-Authenticate) and the usual custom ones
// (X-Auth-Token, X-API-Key, X-Session-Id, ...).
const char* const kSecretNameParts[] = {"auth", "cookie", "token", "key", "secret", "session", "password"};

// Request headers are the caller's, and a custom one may carry a credential
// under any name (X-Credential, X-Pass, ...): only these show their values.
const char* const kPlainRequestNames[] = {"host",    "accept",     "accept-encoding",   "content-type", "content-length",
                                          "expect",  "user-agent", "transfer-encoding", "connection",   "range"};

bool isPlainRequestName(const std::string& name) {
    return std::any_of(std::begin(kPlainRequestNames), std::end(kPlainRequestNames),
                       [&](const char* plain) { return name == plain; });
}

bool looksSecret(const std::string& name) {
    return std::any_of(std::begin(kSecretNameParts), std::end(kSecretNameParts),
                       [&](const char* part) { return name.find(part) != std::string::npos; });
}

// The length of "Name:" when `line` is a header line whose value must not
// show, otherwise 0. Blanks around the name (" Authorization : x") are not
// part of it: libcurl sends a caller's line as it is written.
size_t maskedHeaderNameLength(const std::string& line, bool requestHeader) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return 0;
    std::string name = line.substr(0, colon);
    name.erase(name.find_last_not_of(" \t") + 1);
    name.erase(0, name.find_first_not_of(" \t"));
    if (name.empty() || name.find_first_of(" \t") != std::string::npos) return 0;
    name = webclient::lowerCase(name);
    const bool masked = requestHeader ? !isPlainRequestName(name) : looksSecret(name);
    return masked ? colon + 1 : 0;
}

const char* prefixFor(curl_infotype type) {
    switch (type) {
    case CURLINFO_HEADER_IN: return "< ";
    case CURLINFO_HEADER_OUT: return "> ";
    default: return "* ";
    }
}

// Over HTTP/2 libcurl also reports each request header as text, in
// brackets: "h2h3 [name: value]" (7.8x) or "[HTTP/2] [1] [name: value]"
// (8.x). The position just past a masked name's colon there, or npos.
size_t maskedBracketedNameEnd(const std::string& line) {
    for (size_t open = line.find('['); open != std::string::npos; open = line.find('[', open + 1)) {
        const size_t nameLength = maskedHeaderNameLength(line.substr(open + 1), true);
        if (nameLength != 0) return open + 1 + nameLength;
    }
    return std::string::npos;
}

}  // namespace

std::string maskVerboseLine(const std::string& line, bool requestHeader) {
    const size_t nameLength = maskedHeaderNameLength(line, requestHeader);
    if (nameLength != 0) return line.substr(0, nameLength) + " ***";
    const size_t bracketedEnd = maskedBracketedNameEnd(line);
    if (bracketedEnd != std::string::npos) return line.substr(0, bracketedEnd) + " ***]";
    // URLs in verbose lines always carry "://"; the scheme-less forms would
    // take a header such as "From:ops@example.com" for user and password.
    return webclient::maskQuery(webclient::maskUserinfoPassword(line, false));
}

int logVerboseLine(CURL*, curl_infotype type, char* data, size_t size, void*) {
    if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT) return 0;
    return webclient::resultOrOnException("logVerboseLine", 0, [&] {
        const std::string text(data, size);
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(start, end - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (!line.empty()) {
                // Escaped: a server's header line must not print a log line of its own.
                const std::string shown =
                    webclient::escapeControlBytes(maskVerboseLine(line, type == CURLINFO_HEADER_OUT));
                WC_LOG_DEBUG("%s%s", prefixFor(type), shown.c_str());
            }
            start = end + 1;
        }
        return 0;
    });
}
