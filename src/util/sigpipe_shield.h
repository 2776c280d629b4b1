// Writing to a pipe whose reader has gone raises SIGPIPE, which ends the
// process unless the host handles it. libcurl shields its own sockets, but
// a stream the caller hands over (a download's file, a child's input) is
// written by stdio.
#pragma once

#include <signal.h>

namespace webclient {

// Holds SIGPIPE off the calling thread for its lifetime, so that such a
// write fails with EPIPE instead. When the guarded code itself ends with
// errno EPIPE, the SIGPIPE its write raised is taken back before SIGPIPE is
// unblocked again (any other stays pending and reaches the host then); a
// thread that already blocks the signal is left as it is. errno is what the
// guarded code set, or the caller's value when it set none. Keep the
// guarded code short: a SIGPIPE sent to the process meanwhile waits for it.
class SigpipeShield {
public:
    SigpipeShield() noexcept;
    ~SigpipeShield();
    SigpipeShield(const SigpipeShield&) = delete;
    SigpipeShield& operator=(const SigpipeShield&) = delete;

private:
    int callerErrno_;
    bool shielding_ = false;
};

// printf to standard error under a SigpipeShield, errno left as it was:
// where standard error is a pipe whose reader has gone (a log collector
// restarted), the line is lost rather than the host.
void printToStderr(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace webclient
