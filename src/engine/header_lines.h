// The request header list both clients hand libcurl: the caller's lines.
#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace webclient {

// One line ending at the very end is dropped: a caller may hand over
// complete lines ("X-A: 1\r\n"), which libcurl would send with a second
// ending, closing the header block early.
inline std::string withoutLineEnding(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!text.empty() && text.back() == '\r') text.pop_back();
    return text;
}

// A NUL ends the text for libcurl, which takes C strings: what follows it
// would be dropped without a word, and a different request go out (even a
// NUL at the very end cuts "user" + ":" + "password" short).
inline bool holdsNul(const std::string& text) { return text.find('\0') != std::string::npos; }

// A CR or LF anywhere else ends a line on the wire: what follows it would go
// out as a header line of its own, or as a second request whose answer the
// next caller on that connection would take for its own. Such text, and
// text with a NUL, is refused, not sent.
inline bool holdsLineBreakOrNul(const std::string& text) {
    return withoutLineEnding(text).find_first_of("\r\n") != std::string::npos || holdsNul(text);
}

// libcurl refuses a text option longer than this, and the request would go
// out without it.
constexpr size_t kMaxOptionText = 8000000;

// Why a request cannot go out as it was given, or null.
inline const char* unsendableReason(const std::string& url, const std::vector<std::string>& headers,
                                    const std::string& cookie) {
    if (holdsNul(url)) return "the URL holds a NUL byte";
    if (holdsLineBreakOrNul(cookie) || std::any_of(headers.begin(), headers.end(), holdsLineBreakOrNul)) {
        return "a header line or the cookie holds CR, LF or NUL";
    }
    if (url.size() > kMaxOptionText) return "the URL is longer than libcurl takes";
    if (cookie.size() > kMaxOptionText && withoutLineEnding(cookie).size() > kMaxOptionText) {
        return "the cookie is longer than libcurl takes";
    }
    return nullptr;
}

// Why the credentials cannot go out as given, or null. Both are sent only
// when neither is empty, as one "user:password" text.
inline const char* unsendableCredentials(const std::string& user, const std::string& password) {
    if (holdsNul(user) || holdsNul(password)) return "the user name or password holds a NUL byte";
    if (!user.empty() && !password.empty() && user.size() + 1 + password.size() > kMaxOptionText) {
        return "the user name and password are longer than libcurl takes";
    }
    return nullptr;
}

// `headers` in order; `built` is null when there is nothing to send. The
// cookie argument is not among them (see where CURLOPT_COOKIE is set).
// False, with nothing built and nothing leaked, when libcurl cannot extend
// the list; the request must then fail rather than go out without, say, its
// Authorization line.
inline bool buildHeaderList(const std::vector<std::string>& headers, curl_slist*& built) {
    built = nullptr;
    auto append = [&built](const char* line) {
        curl_slist* grown = curl_slist_append(built, line);
        if (grown == nullptr) {
            curl_slist_free_all(built);
            built = nullptr;
            return false;
        }
        built = grown;
        return true;
    };
    for (const auto& line : headers) {
        if (!append(withoutLineEnding(line).c_str())) return false;
    }
    return true;
}

// Points `handle` at `lines` (null: none) and frees the list it used before,
// `owned`, which then takes `lines`. A handle used again must neither keep
// pointing at a freed list nor send the earlier call's lines.
inline CURLcode replaceHeaderList(CURL* handle, curl_slist*& owned, curl_slist* lines) {
    const CURLcode code = curl_easy_setopt(handle, CURLOPT_HTTPHEADER, lines);
    if (owned != nullptr) curl_slist_free_all(owned);
    owned = lines;
    return code;
}

}  // namespace webclient
