// Child processes with all three standard streams on pipes. Plain C
// linkage. Diagnostics go to standard error.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include "webclient/export.h"

#ifdef __cplusplus
extern "C" {
#endif

struct popen3_streams {
    FILE* child_in;   // "w": the child's standard input
    FILE* child_out;  // "r": the child's standard output
    FILE* child_err;  // "r": the child's standard error
};

// Runs "/bin/sh -c command". All three fields null: no child was started
// (a null command: errno EINVAL).
WEBCLIENT_API struct popen3_streams popen3(const char* command);
// Closes the streams and waits for the child: its wait status, or -1 when
// none of the streams belongs to a known child.
WEBCLIENT_API int pclose3(struct popen3_streams streams);
// Reads lines into `buffer` as consecutive NUL-terminated strings until end
// of stream, error or a full buffer (then drains the stream).
WEBCLIENT_API int fgets_some(char* buffer, int size, FILE* stream);
// Reads `stream` to its end, discarding it.
WEBCLIENT_API int waste_stream(FILE* stream);
// Writes each non-empty string of a fgets_some buffer, one per line.
WEBCLIENT_API int strings_to_stream(FILE* stream, char* buffer, size_t length);
// Reports a wait status on stderr: 0 for a normal exit, 1 otherwise.
WEBCLIENT_API int print_exit_code(int status);

#ifdef __cplusplus
}
#endif
