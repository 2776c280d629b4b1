#include "engine/verbose_log.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "engine/url_masking.h"
#include "util/ascii_case.h"
#include "util/callback_barrier.h"
#include "util/log.h"

namespace {

// A response header whose name contains one of these carries a credential:
// the standard ones (Set-Cookie, WWW-Authenticate) and the usual custom ones
// (X-Auth-Token, X-API-Key, X-Session-Id, ...).
const char* const kSecretNameParts[] = {"auth", "cookie", "token", "key", "secret", "session", "password"};

// Request headers are the caller's, and a custom one may carry a credential
// under any name (X-Credential, X-Pass, ...): only these show their values.
const char* const kPlainRequestNames[] = {
    "host",           "accept",     "accept-encoding",   "accept-language", "content-type",
    "content-length", "user-agent", "transfer-encoding", "connection",      "expect",
    "range",          "cache-control", "if-none-match",  "if-modified-since"};

bool isPlainRequestName(const std::string& name) {
    return std::any_of(std::begin(kPlainRequestNames), std::end(kPlainRequestNames),
                       [&](const char* plain) { return name == plain; });
}

bool looksSecret(const std::string& name) {
    return std::any_of(std::begin(kSecretNameParts), std::end(kSecretNameParts),
                       [&](const char* part) { return name.find(part) != std::string::npos; });
}

// "METHOD target HTTP/x.y": the one line of a request's header that is not
// a header line.
bool isRequestLine(const std::string& line) {
    const size_t space = line.find(' ');
    const size_t version = line.rfind(" HTTP/");
    if (space == 0 || space == std::string::npos || version == std::string::npos || version <= space) return false;
    const bool methodLike = std::all_of(line.begin(), line.begin() + static_cast<long>(space),
                                        [](unsigned char c) { return c >= 'A' && c <= 'Z'; });
    return methodLike && version + 6 < line.size() && line.find_first_not_of("0123456789.", version + 6) == std::string::npos;
}

// The part before a colon, without the blanks around it (libcurl sends a
// caller's line as it is written: " Authorization : x"), in lower case.
std::string trimmedName(std::string name) {
    name.erase(name.find_last_not_of(" \t") + 1);
    name.erase(0, name.find_first_not_of(" \t"));
    return webclient::asciiLowerCase(std::move(name));
}

bool isSingleWord(const std::string& name) { return !name.empty() && name.find_first_of(" \t") == std::string::npos; }

// The length of "Name:" when `line`'s value must not show, otherwise 0. A
// request header line shows only a plain name's value, whatever the name
// looks like; in other lines only a single-word name that looks like a
// credential is masked (text lines such as "ALPN: offers http/1.1" stay).
size_t maskedHeaderNameLength(const std::string& line, bool requestHeader) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return 0;
    const std::string name = trimmedName(line.substr(0, colon));
    if (requestHeader) return isPlainRequestName(name) ? 0 : colon + 1;
    return isSingleWord(name) && looksSecret(name) ? colon + 1 : 0;
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
        const size_t colon = line.find(':', open + 1);
        if (colon == std::string::npos) break;
        const std::string name = trimmedName(line.substr(open + 1, colon - open - 1));
        if (isSingleWord(name) && !isPlainRequestName(name)) return colon + 1;
    }
    return std::string::npos;
}

}  // namespace

std::string maskVerboseLine(const std::string& line, bool requestHeader) {
    const size_t nameLength = maskedHeaderNameLength(line, requestHeader);
    if (nameLength != 0) return line.substr(0, nameLength) + " ***";
    // URLs in verbose lines always carry "://"; the scheme-less forms would
    // take a header such as "From:ops@example.com" for user and password.
    // A bracketed credential hides the rest of the line, and the URL
    // masking still applies before it ("?password=x&range=[1:2]").
    const size_t bracketedEnd = maskedBracketedNameEnd(line);
    const std::string shown = webclient::withRangesMasked(line, webclient::urlSecretRanges(line, false), bracketedEnd);
    return bracketedEnd == std::string::npos ? shown : shown + " ***]";
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
                // libcurl hands over a request's whole header at once: its
                // first line is the request line, every other one a header.
                const bool requestHeader = type == CURLINFO_HEADER_OUT && !(start == 0 && isRequestLine(line));
                // Escaped: a server's header line must not print a log line of its own.
                const std::string shown = webclient::escapeControlBytes(maskVerboseLine(line, requestHeader));
                WC_LOG_DEBUG("%s%s", prefixFor(type), shown.c_str());
            }
            start = end + 1;
        }
        return 0;
    });
}
