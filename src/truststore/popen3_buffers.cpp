// Bounded reading of a child's output streams and reporting of its exit
// status. All diagnostics go to standard error.
#include <cstdio>
#include <cstring>

#include "util/sigpipe_shield.h"
#include "webclient/host.h"
#include "webclient/popen3.h"

namespace {

// Reads lines into buffer[0..size) as consecutive NUL-terminated strings;
// the room left afterwards (0 means full). A negative size reads nothing and
// leaves the stream as it is; a null buffer has no room at all, so the
// stream is drained as for a full one (the child must not block on it).
int readLines(char* buffer, int size, FILE* stream) {
    char* position = buffer;
    int room = buffer == nullptr ? 0 : size;
    while (room > 0 && std::fgets(position, room, stream) != nullptr) {
        const size_t increase = strnlen_s_helper(position, static_cast<size_t>(room)) + 1;
        position += increase;
        room -= static_cast<int>(increase);
        webclient::printToStderr("fgets ok. increase: %zu remain: %d\n", increase, room);
    }
    return room;
}

}  // namespace

extern "C" int fgets_some(char* buffer, int size, FILE* stream) {
    if (stream == nullptr) return 1;
    webclient::printToStderr("fd: %d\n", fileno(stream));
    if (size > 0) (void)memset_s_helper(buffer, static_cast<size_t>(size), 0, static_cast<size_t>(size));
    const int room = readLines(buffer, size, stream);
    if (std::feof(stream)) {
        webclient::printToStderr("fgets reach stream EOF\n");
        return 0;
    }
    if (std::ferror(stream)) {
        const int error = std::ferror(stream);
        webclient::printToStderr("fgets got an error: %d\n", error);
        return error;
    }
    if (room == 0) {
        webclient::printToStderr("Buffer full. Waste stream.\n");
        // The child must never block on a full pipe.
        (void)waste_stream(stream);
    }
    return 0;
}

extern "C" int waste_stream(FILE* stream) {
    if (stream == nullptr) return 1;
    webclient::printToStderr("fd: %d\n", fileno(stream));
    char discard[256];
    while (std::fgets(discard, sizeof discard, stream) != nullptr) {
    }
    if (std::feof(stream)) {
        webclient::printToStderr("fgets reach stream EOF\n");
    } else if (std::ferror(stream)) {
        webclient::printToStderr("fgets got an error: %d\n", std::ferror(stream));
    }
    return 0;
}

extern "C" int strings_to_stream(FILE* stream, char* buffer, size_t length) {
    if (stream == nullptr || (buffer == nullptr && length > 0)) return 1;
    const char* end = buffer + length;
    webclient::SigpipeShield shield;  // the reader (a child) may have gone
    for (const char* text = buffer; text < end;) {
        // Bounded: a buffer not made by fgets_some may lack its last NUL.
        const size_t textLength = strnlen_s_helper(text, static_cast<size_t>(end - text));
        if (textLength > 0) std::fprintf(stream, "%.*s\n", static_cast<int>(textLength), text);
        text += textLength + 1;
    }
    return 0;
}

extern "C" int print_exit_code(int status) {
    if ((status & 0x7f) == 0) {
        webclient::printToStderr("Exit code: %i\n", (status >> 8) & 0xff);
        return 0;
    }
    webclient::printToStderr("Process does not exit normally!\n");
    return 1;
}
