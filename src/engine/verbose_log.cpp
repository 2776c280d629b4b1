#include "engine/verbose_log.h"

#include "engine/url_masking.h"
#include "util/callback_barrier.h"
#include "util/log.h"

namespace {

// A header whose name contains one of these carries a credential: the
// standard ones (Authorization, Cookie) and the usual custom ones
// (X-Auth-Token, X-API-Key, X-Session-Id, ...).
const char* const kSecretNameParts[] = {"auth", "cookie", "token", "key", "secret", "session", "password"};

// The length of "Name:" when `line` is a header line whose name looks
// secret, otherwise 0. Blanks around the name (" Authorization : x") are not
// part of it: libcurl sends a caller's line as it is written.
size_t secretHeaderNameLength(const std::string& line) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return 0;
    std::string name = line.substr(0, colon);
    name.erase(name.find_last_not_of(" \t") + 1);
    name.erase(0, name.find_first_not_of(" \t"));
    if (name.empty() || name.find_first_of(" \t") != std::string::npos) return 0;
    name = webclient::lowerCase(name);
    for (const char* part : kSecretNameParts) {
        if (name.find(part) != std::string::npos) return colon + 1;
    }
    return 0;
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
// (8.x). The position just past a secret name's colon there, or npos.
size_t secretBracketedNameEnd(const std::string& line) {
    for (size_t open = line.find('['); open != std::string::npos; open = line.find('[', open + 1)) {
        const size_t nameLength = secretHeaderNameLength(line.substr(open + 1));
        if (nameLength != 0) return open + 1 + nameLength;
    }
    return std::string::npos;
}

}  // namespace

std::string maskVerboseLine(const std::string& line) {
    const size_t nameLength = secretHeaderNameLength(line);
    if (nameLength != 0) return line.substr(0, nameLength) + " ***";
    const size_t bracketedEnd = secretBracketedNameEnd(line);
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
            if (!line.empty()) WC_LOG_DEBUG("%s%s", prefixFor(type), maskVerboseLine(line).c_str());
            start = end + 1;
        }
        return 0;
    });
}
