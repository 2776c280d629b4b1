#include "util/lock_guard.h"

#include <cerrno>

#include "webclient/host.h"

namespace utilities {
namespace lock {

lock_guard::lock_guard(pthread_mutex_t* mutex) noexcept : mutex_(mutex) {
    if (mutex_ == nullptr) return;
    int locked = pthread_mutex_lock(mutex_);
    // A robust mutex whose owner died comes back held: forgetting it would
    // leave it locked for good (and this thread's next lock would wait for
    // itself). It is made usable again and kept.
    if (locked == EOWNERDEAD) locked = pthread_mutex_consistent(mutex_);
    if (locked != 0) {
        mutex_ = nullptr;
        print_back_trace();
    }
}

lock_guard::~lock_guard() noexcept {
    if (mutex_ != nullptr) {
        (void)pthread_mutex_unlock(mutex_);  // we hold it: cannot fail usefully
    }
}

lock_guard_read::lock_guard_read(pthread_rwlock_t* rwlock) noexcept : rwlock_(rwlock) {
    if (rwlock_ != nullptr && pthread_rwlock_rdlock(rwlock_) != 0) {
        rwlock_ = nullptr;
        print_back_trace();
    }
}

lock_guard_read::~lock_guard_read() noexcept {
    if (rwlock_ != nullptr) {
        (void)pthread_rwlock_unlock(rwlock_);
    }
}

lock_guard_write::lock_guard_write(pthread_rwlock_t* rwlock) noexcept : rwlock_(rwlock) {
    if (rwlock_ != nullptr && pthread_rwlock_wrlock(rwlock_) != 0) {
        rwlock_ = nullptr;
        print_back_trace();
    }
}

lock_guard_write::~lock_guard_write() noexcept {
    if (rwlock_ != nullptr) {
        (void)pthread_rwlock_unlock(rwlock_);
    }
}

}  // namespace lock
}  // namespace utilities
