// fgets_some then strings_to_stream over a pipe fed with arbitrary bytes,
// as the trust store reads a script's output: the first input byte picks
// the buffer size. Every line written back must be a piece of the input.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "webclient/popen3.h"

namespace {

// The input goes through a real pipe; a pipe holds 64 KiB, more than
// -max_len allows, so one write never blocks.
FILE* pipeHolding(const uint8_t* data, size_t size) {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    if (size > 0 && write(ends[1], data, size) != static_cast<ssize_t>(size)) std::abort();
    close(ends[1]);
    return fdopen(ends[0], "r");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 60000) return 0;
    const int bufferSize = 1 + data[0] * 16;
    std::vector<char> buffer(static_cast<size_t>(bufferSize));
    FILE* input = pipeHolding(data + 1, size - 1);
    (void)fgets_some(buffer.data(), bufferSize, input);
    std::fclose(input);

    char* written = nullptr;
    size_t writtenSize = 0;
    FILE* output = open_memstream(&written, &writtenSize);
    (void)strings_to_stream(output, buffer.data(), buffer.size());
    std::fclose(output);

    const std::string original(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string lines(written, writtenSize);
    std::free(written);
    for (size_t start = 0; start < lines.size();) {
        const size_t end = lines.find('\n', start);
        if (end == std::string::npos) std::abort();  // every string ends its line
        if (original.find(lines.substr(start, end - start)) == std::string::npos) std::abort();
        start = end + 1;
    }
    return 0;
}
