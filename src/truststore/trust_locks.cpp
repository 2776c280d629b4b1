#include "truststore/trust_locks.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "util/sigpipe_shield.h"

namespace truststore {

int current_thread_id() noexcept { return static_cast<int>(gettid()); }

Lock::Lock(pthread_mutex_t& mutex) noexcept : mutex_(mutex), owns_(true) {
    webclient::printToStderr("%s\n", "Lock");
    // A lock that cannot be taken must not be released later.
    if (pthread_mutex_lock(&mutex_) != 0) owns_ = false;
}

Lock::~Lock() noexcept {
    webclient::printToStderr("%s\n", "~Lock");
    if (owns_) (void)pthread_mutex_unlock(&mutex_);
}

namespace {

// The realtime clock, as the timed write lock takes it: a clock step only
// moves when a wait that is a backstop anyway gives up.
int takeWriteLock(pthread_rwlock_t* rwlock, long giveUpAfterMs) {
    if (rwlock == nullptr) return EINVAL;
    if (giveUpAfterMs < 0) return pthread_rwlock_wrlock(rwlock);
    timespec giveUpAt{};
    clock_gettime(CLOCK_REALTIME, &giveUpAt);
    giveUpAt.tv_sec += giveUpAfterMs / 1000;
    giveUpAt.tv_nsec += (giveUpAfterMs % 1000) * 1000000L;
    if (giveUpAt.tv_nsec >= 1000000000L) {
        giveUpAt.tv_sec += 1;
        giveUpAt.tv_nsec -= 1000000000L;
    }
    return pthread_rwlock_timedwrlock(rwlock, &giveUpAt);
}

}  // namespace

LockWrite::LockWrite(pthread_rwlock_t* rwlock, long giveUpAfterMs) noexcept : rwlock_(rwlock), owns_(true) {
    webclient::printToStderr("%s gettid(): %d\n", "LockWrite", current_thread_id());
    if (takeWriteLock(rwlock_, giveUpAfterMs) != 0) owns_ = false;
}

LockWrite::~LockWrite() noexcept {
    webclient::printToStderr("%s gettid(): %d\n", "~LockWrite", current_thread_id());
    if (owns_) (void)pthread_rwlock_unlock(rwlock_);
}

}  // namespace truststore
