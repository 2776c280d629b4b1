// Case-insensitive matching of protocol text (header names, query field
// names, URL schemes) in ASCII alone. The C library's tolower and
// strcasecmp follow the host's locale: under a Turkish one 'I' does not
// lower to 'i', and "LOCATION" would not match "location".
#pragma once

#include <string>
#include <string_view>

namespace webclient {

inline char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

inline std::string asciiLowerCase(std::string text) {
    for (char& c : text) c = asciiLower(c);
    return text;
}

inline bool asciiEqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

}  // namespace webclient
