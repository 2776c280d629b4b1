// The request header list both clients hand libcurl: the caller's lines,
// then the cookie as a header line of its own.
#pragma once

#include <curl/curl.h>
#include <strings.h>

#include <string>
#include <vector>

namespace webclient {

// Whether one of `lines` is a "name:" header line (any case).
inline bool hasHeaderLine(const std::vector<std::string>& lines, const std::string& name) {
    for (const auto& line : lines) {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            return true;
        }
    }
    return false;
}

// `headers` in order, then "Cookie: <cookie>" when a cookie is given and the
// caller's lines carry none (two Cookie lines are not allowed, and libcurl
// gives a caller's line precedence over its cookie option too). As a
// header line the cookie stays with the original host, port and scheme
// when a redirect leads elsewhere; libcurl's cookie option would follow it.
// `built` is null when there is nothing to send. False, with nothing built
// and nothing leaked, when libcurl cannot extend the list; the request must
// then fail rather than go out without, say, its Authorization line.
inline bool buildHeaderList(const std::vector<std::string>& headers, const std::string& cookie,
                            curl_slist*& built) {
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
        if (!append(line.c_str())) return false;
    }
    if (cookie.empty() || hasHeaderLine(headers, "Cookie")) return true;
    return append(("Cookie: " + cookie).c_str());
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
