#include "util/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace webclient {

void occupyFreeStandardDescriptors() noexcept {
    const int callerErrno = errno;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        // Not close-on-exec: a standard descriptor is meant to be inherited.
        const int opened = open("/dev/null", O_RDWR);
        // Another thread filled the gap meanwhile: this one is not needed.
        if (opened > STDERR_FILENO) close(opened);
    }
    errno = callerErrno;
}

namespace {

// Covers a host that closed them before it loaded the library.
__attribute__((constructor)) void occupyAtLoad() { occupyFreeStandardDescriptors(); }

}  // namespace

}  // namespace webclient
