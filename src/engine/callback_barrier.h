// libcurl calls the data and header callbacks from C frames, through which
// no C++ exception may unwind.
#pragma once

#include <cstddef>
#include <exception>

#include "util/log.h"

namespace webclient {

// Runs a callback's body; an exception that escapes it is logged and turned
// into 0, which libcurl ends the transfer with as a write error.
template <typename Body>
size_t writeErrorOnException(const char* where, Body body) noexcept {
    try {
        return static_cast<size_t>(body());
    } catch (const std::exception& error) {
        WC_LOG_ERROR("[%s] exception %s", where, error.what());
    } catch (...) {
        WC_LOG_ERROR("[%s] unknown exception", where);
    }
    return 0;
}

}  // namespace webclient
