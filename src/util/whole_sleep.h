// A pause that lasts its whole time even when a host's signal handler,
// installed without SA_RESTART, ends the sleep early.
#pragma once

#include <cerrno>
#include <ctime>

namespace webclient {

inline void sleepWholeSeconds(unsigned seconds) {
    timespec left{static_cast<time_t>(seconds), 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace webclient
