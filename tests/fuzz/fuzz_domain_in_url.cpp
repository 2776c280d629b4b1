// IsDomainInUrl on arbitrary text, and on URLs built around a dotted quad
// or a name taken from the input: a numeric host is never a domain.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "webclient/host.h"

using kpu_utilities::string_con::IsDomainInUrl;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    (void)IsDomainInUrl(text);
    if (size < 4) return 0;

    std::string quad;
    for (size_t i = 0; i < 4; ++i) quad += (i ? "." : "") + std::to_string(data[i]);
    const std::string rest = text.substr(4);
    const std::string tail = rest.find_first_of("/?#") == std::string::npos ? "" : rest.substr(rest.find_first_of("/?#"));
    for (const std::string& prefix : {std::string("http://"), std::string("https://user:pw@")}) {
        if (IsDomainInUrl(prefix + quad + tail) || IsDomainInUrl(prefix + quad + ":8080" + tail)) std::abort();
        if (!IsDomainInUrl(prefix + "device-" + std::to_string(data[0]) + ".example" + tail)) std::abort();
    }
    return 0;
}
