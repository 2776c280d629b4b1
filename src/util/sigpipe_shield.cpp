#include "util/sigpipe_shield.h"

#include <pthread.h>

#include <cerrno>
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

SigpipeShield::SigpipeShield() noexcept {
    const sigset_t pipeOnly = onlySigpipe();
    shielding_ = pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous_) == 0 && sigismember(&previous_, SIGPIPE) == 0;
}

SigpipeShield::~SigpipeShield() {
    if (!shielding_) return;
    const int savedErrno = errno;
    const sigset_t pipeOnly = onlySigpipe();
    sigset_t pending;
    if (savedErrno == EPIPE && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
        const timespec none{0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &none) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    errno = savedErrno;
}

}  // namespace webclient
