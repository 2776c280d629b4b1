// get_printable_url on arbitrary text: never crashes, and in a URL with a
// query a password given as its own parameter never survives into the
// printable form. (A URL without "?" has no query and is printed as is.)
#include <cstdint>
#include <cstdlib>
#include <string>

#include "webclient/web_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    (void)get_printable_url(url);

    const std::string secret = "S3ntinel-Secret";
    if (url.find(secret) != std::string::npos) return 0;  // the input may name it itself
    const std::string withQuery = url.find('?') == std::string::npos ? url + "?q=1" : url;
    for (const char* name : {"&password=", "&client_secret="}) {
        const std::string printable = get_printable_url(withQuery + name + secret);
        if (printable.find(secret) != std::string::npos) std::abort();
    }
    return 0;
}
