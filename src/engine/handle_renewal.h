// Replacing a reused easy handle before each transfer where the installed
// libcurl cannot safely reuse one.
#pragma once

#include <curl/curl.h>

namespace webclient {

// True when libcurl (before 8.1.0) keeps pointing at the previous transfer's
// last response header after freeing it: a response whose first header line
// is a folded continuation then reads and writes freed memory. Only a new
// easy handle starts without that pointer.
bool reusedHandlesKeepStaleHeader();

// The handle to use for the next transfer, carrying no option of an earlier
// one (credentials, a cookie, a method, a body pointer the caller may have
// freed since): with `replace`, a new handle (and `handle` is cleaned up);
// otherwise, or when libcurl cannot make a new one, `handle` reset. No
// handle (dropped after its last transfer, or never made) gets a new one;
// null only when libcurl cannot make one.
CURL* handleForNextTransfer(CURL* handle, bool replace = reusedHandlesKeepStaleHeader());

// Cleans up an easy handle (null: nothing) without touching the process's
// SIGPIPE disposition: libcurl switches it to "ignored" around the clean-up
// of a handle without CURLOPT_NOSIGNAL (one never set up, or reset), and a
// host thread forking meanwhile starts its child with SIGPIPE ignored.
void cleanupEasyHandle(CURL* handle) noexcept;

// A share for the caller's-thread path, so that its connections and DNS
// answers outlive the easy handle they were made with. Null on failure.
CURLSH* makeConnectionShare();

}  // namespace webclient
