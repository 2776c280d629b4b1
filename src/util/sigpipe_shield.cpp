#include "util/sigpipe_shield.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace webclient {

namespace {

sigset_t onlySigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

}  // namespace

SigpipeShield::SigpipeShield() noexcept : callerErrno_(errno) {
    const sigset_t pipeOnly = onlySigpipe();
    sigset_t previous;
    shielding_ = pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous) == 0 && sigismember(&previous, SIGPIPE) == 0;
    // Cleared, so that only an EPIPE of the guarded code itself counts.
    errno = 0;
}

SigpipeShield::~SigpipeShield() {
    const int guardedErrno = errno;
    if (shielding_) {
        const sigset_t pipeOnly = onlySigpipe();
        sigset_t pending;
        if (guardedErrno == EPIPE && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
            const timespec none{0, 0};
            while (sigtimedwait(&pipeOnly, nullptr, &none) < 0 && errno == EINTR) {
            }
        }
        // Only SIGPIPE: whatever else the guarded code did to the mask stays.
        pthread_sigmask(SIG_UNBLOCK, &pipeOnly, nullptr);
    }
    errno = guardedErrno != 0 ? guardedErrno : callerErrno_;
}

void printToStderr(const char* format, ...) {
    const int callerErrno = errno;
    {
        SigpipeShield shield;
        va_list arguments;
        va_start(arguments, format);
        std::vfprintf(stderr, format, arguments);
        va_end(arguments);
    }
    errno = callerErrno;
}

}  // namespace webclient
