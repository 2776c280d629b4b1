// Short, bounded waiting without sleeping. Waking a thread that sleeps on a
// futex costs tens of microseconds on both sides (more on a virtual
// machine), while the engine's locks and quick answers are released in a
// few; so a waiter first gives the processor away for a bounded time.
#pragma once

#include <sched.h>

#include <ctime>

namespace webclient {

inline long long monotonicMicros() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Calls `ready` until it returns true or `microseconds` have passed,
// yielding in between; returns whether it became ready.
template <typename Ready>
bool yieldUntil(Ready ready, long microseconds) {
    if (ready()) return true;  // the common case reads no clock
    const long long start = monotonicMicros();
    while (!ready()) {
        if (monotonicMicros() - start >= microseconds) return false;
        sched_yield();
    }
    return true;
}

}  // namespace webclient
