// Ending a child process of popen3 together with everything it started.
#pragma once

#include <sys/types.h>

namespace truststore {

// A pidfd for `pid` (through syscall(): older C libraries have no
// wrapper), or -1 when the kernel has none or no descriptor is left.
int openPidFd(pid_t pid);

// Ends `root`, an unreaped child of this process, and every process it
// started: each is asked with SIGTERM, and whatever still runs `graceMs`
// later gets SIGKILL. A root that was already reaped (a host that ignores
// SIGCHLD) is left alone: its pid may name another process by now. What
// was handed to another parent before it was first found (the background
// child of a shell that has exited) is out of reach.
void endProcessTree(pid_t root, int graceMs);

// SIGKILL for `root` alone, if it is still an unreaped child of this
// process: through a pidfd opened before that check where the kernel gives
// one (so a reap by the host right after it cannot turn the signal onto a
// stranger), else by pid right after it. Allocates nothing: for where
// endProcessTree could not run for want of memory.
void killChild(pid_t root);

}  // namespace truststore
