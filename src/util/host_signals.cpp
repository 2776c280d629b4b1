#include "util/host_signals.h"

#include <pthread.h>

#include <initializer_list>

namespace webclient {

namespace {

sigset_t hostSignals() {
    sigset_t set;
    sigfillset(&set);
    for (int faultSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGPIPE}) {
        sigdelset(&set, faultSignal);
    }
    return set;
}

}  // namespace

HostSignalsBlocked::HostSignalsBlocked() noexcept {
    const sigset_t blocked = hostSignals();
    blocked_ = pthread_sigmask(SIG_BLOCK, &blocked, &previous_) == 0;
}

HostSignalsBlocked::~HostSignalsBlocked() {
    if (blocked_) (void)pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

}  // namespace webclient
