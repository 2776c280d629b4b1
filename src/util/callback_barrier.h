// libcurl and pthreads call our callbacks from C frames, through which no
// C++ exception may unwind.
#pragma once

#include <cstddef>
#include <exception>

#include "util/log.h"

namespace webclient {

// Runs `body` and returns its result; an exception that escapes it is
// logged under `where` and `fallback` is returned instead.
template <typename Result, typename Body>
Result resultOrOnException(const char* where, Result fallback, Body body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        // Worded apart from the verbs' "[%s] exception %s" timeout line, so a
        // filter on one does not catch the other.
        WC_LOG_ERROR("[%s] unexpected exception %s", where, error.what());
    } catch (...) {
        WC_LOG_ERROR("[%s] unknown exception", where);
    }
    return fallback;
}

// For libcurl's data and header callbacks: 0 ends the transfer as a write
// error.
template <typename Body>
size_t writeErrorOnException(const char* where, Body body) noexcept {
    return resultOrOnException<size_t>(where, 0, [&] { return static_cast<size_t>(body()); });
}

}  // namespace webclient
