#include "truststore/trust_locks.h"

#include <unistd.h>

#include <cstdio>

namespace truststore {

int current_thread_id() noexcept { return static_cast<int>(gettid()); }

Lock::Lock(pthread_mutex_t& mutex) noexcept : mutex_(mutex), owns_(true) {
    std::fprintf(stderr, "%s\n", "Lock");
    // A lock that cannot be taken must not be released later.
    if (pthread_mutex_lock(&mutex_) != 0) owns_ = false;
}

Lock::~Lock() noexcept {
    std::fprintf(stderr, "%s\n", "~Lock");
    if (owns_) (void)pthread_mutex_unlock(&mutex_);
}

LockWrite::LockWrite(pthread_rwlock_t* rwlock) noexcept : rwlock_(rwlock), owns_(true) {
    std::fprintf(stderr, "%s gettid(): %d\n", "LockWrite", current_thread_id());
    if (rwlock_ == nullptr || pthread_rwlock_wrlock(rwlock_) != 0) owns_ = false;
}

LockWrite::~LockWrite() noexcept {
    std::fprintf(stderr, "%s gettid(): %d\n", "~LockWrite", current_thread_id());
    if (owns_) (void)pthread_rwlock_unlock(rwlock_);
}

}  // namespace truststore
