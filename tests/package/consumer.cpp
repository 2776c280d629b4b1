// A program outside the project that uses the installed library.
#include <webclient/webclient.h>

#include <cstdio>
#include <cstring>

int main() {
    const std::string masked = get_printable_url("http://192.0.2.1/t?password=x&a=1");
    const char* lines[] = {"A: 1", nullptr};
    const bool ok = masked == "http://192.0.2.1/t?password=***&a=1" && header_array_to_vector(lines).size() == 1;
    std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
