// The trust store's scoped lock holders. Both write a trace line to
// standard error when taken and when released, so that a stuck refresh
// can be read off the host's stderr.
#pragma once

#include <pthread.h>

namespace truststore {

// Kernel thread id of the caller, as the trace lines show it.
int current_thread_id() noexcept;

// Holds a mutex for its scope. Traces "Lock" / "~Lock".
class Lock {
public:
    explicit Lock(pthread_mutex_t& mutex) noexcept;
    ~Lock() noexcept;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    pthread_mutex_t& mutex_;
    bool owns_;
};

// Holds the write side of a reader/writer lock for its scope. Traces
// "LockWrite gettid(): <tid>" / "~LockWrite gettid(): <tid>". With
// `giveUpAfterMs` at 0 or more it stops waiting then; owns() tells.
class LockWrite {
public:
    explicit LockWrite(pthread_rwlock_t* rwlock, long giveUpAfterMs = -1) noexcept;
    ~LockWrite() noexcept;
    bool owns() const noexcept { return owns_; }
    LockWrite(const LockWrite&) = delete;
    LockWrite& operator=(const LockWrite&) = delete;

private:
    pthread_rwlock_t* rwlock_;
    bool owns_;
};

}  // namespace truststore
