// Scoped lock guards over pthread locks. Each keeps the pointer it was
// given; a null pointer means "no lock". When locking fails the guard
// forgets the pointer (so nothing is unlocked later), reports a backtrace
// through print_back_trace() and carries on without the lock.
#pragma once

#include <pthread.h>

namespace utilities {
namespace lock {

class lock_guard {
public:
    explicit lock_guard(pthread_mutex_t* mutex) noexcept;
    ~lock_guard() noexcept;
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;

    // False when there was no mutex or locking it failed.
    bool owns() const noexcept { return mutex_ != nullptr; }

private:
    pthread_mutex_t* mutex_;
};

class lock_guard_read {
public:
    explicit lock_guard_read(pthread_rwlock_t* rwlock) noexcept;
    ~lock_guard_read() noexcept;
    lock_guard_read(const lock_guard_read&) = delete;
    lock_guard_read& operator=(const lock_guard_read&) = delete;

private:
    pthread_rwlock_t* rwlock_;
};

class lock_guard_write {
public:
    explicit lock_guard_write(pthread_rwlock_t* rwlock) noexcept;
    ~lock_guard_write() noexcept;
    lock_guard_write(const lock_guard_write&) = delete;
    lock_guard_write& operator=(const lock_guard_write&) = delete;

private:
    pthread_rwlock_t* rwlock_;
};

}  // namespace lock
}  // namespace utilities
