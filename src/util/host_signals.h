// The library's own threads leave the host's signals to the host's
// threads. A process-directed signal goes to any thread that does not block
// it; on a library thread, a handler without SA_RESTART would cut short a
// write to a download's stream or a child's pipe at a random point.
#pragma once

#include <signal.h>

namespace webclient {

// Blocks, on the calling thread and for its lifetime, every signal but the
// ones a fault raises on the faulting thread (and SIGPIPE, which a write
// raises on the writing thread and SigpipeShield takes back). A thread
// created meanwhile starts with that mask.
class HostSignalsBlocked {
public:
    HostSignalsBlocked() noexcept;
    ~HostSignalsBlocked();
    HostSignalsBlocked(const HostSignalsBlocked&) = delete;
    HostSignalsBlocked& operator=(const HostSignalsBlocked&) = delete;

private:
    sigset_t previous_;
    bool blocked_ = false;
};

}  // namespace webclient
