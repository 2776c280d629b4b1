// Private state of a WebRequest, shared by the engine's translation units
// and read by the blocking client (result and error text).
#pragma once

#include <memory>

#include <curl/curl.h>

#include "engine/upload_reader.h"
#include "webclient/web_handle.h"
#include "webclient/web_request.h"

struct WebRequest::impl {
    CURL* curl_handle = nullptr;
    std::shared_ptr<WebHandle> web_handle;
    char error_buffer[CURL_ERROR_SIZE] = {};
    CURLcode result = CURLE_OK;
    curl_httppost* form_post = nullptr;
    UploadSource upload;  // uploadAsync's file, read by the transfer
    DataReceivedCallback on_data;
    DataReceivedCallback on_header;
    CompletionCallback on_complete;
    // True exactly while this request owns a read hold on the trust store's
    // CA file (taken by setupSecureRequest, given back by the destructor).
    bool holds_ca_file = false;
    // True while the backend has this request (from the verb that handed it
    // over until abort() or the destructor). Only the owner's thread reads
    // or writes it.
    bool registered = false;
    // True once a verb has set options on the handle: another verb then
    // starts from a clean handle instead of inheriting them.
    bool used = false;
    // Set under `mutex` when the transfer has ended, before on_complete
    // runs (`completed` follows it): a wait() made inside on_complete need
    // not wait.
    bool transfer_ended = false;
    // True once curl_easy_perform has run on the handle (the caller's-thread
    // path): the handle then keeps a socket pair until it is cleaned up.
    bool performed_here = false;
    // The custom method (PUT, PATCH, DELETE) whose transfer ends at a 303,
    // or null; `stopped_at_see_other` says that it did.
    const char* see_other_method = nullptr;
    bool answer_names_location = false;  // the answer being read so far
    bool stopped_at_see_other = false;
};

// Resets (or renews) the request's pooled handle for its next transfer and
// points libcurl's error text at the request. The request holds the handle.
void takeCleanHandle(WebRequest& request);

// Logs that the request is not sent and why, and throws WebException with
// `reason`.
[[noreturn]] void refuseRequest(const WebRequest& request, const char* reason);

// Throws the set-up's WebException for a libcurl call that failed with
// `code`. libcurl writes no error text when it refuses an option (a string
// over its 8 MB limit, for one): the exception then carries the code's text.
[[noreturn]] void failSetup(WebRequest& request, CURLcode code);

// A transfer ended on purpose at a 303 for a custom method: it counts as
// complete, with the 303 as its answer, not as libcurl's write error.
void settleSeeOtherStop(WebRequest& request);

// Sets an option whose failure must abort the set-up (throws WebException).
template <typename Value>
void setCheckedOption(WebRequest& request, CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(request.impl->curl_handle, option, value);
    if (code != CURLE_OK) failSetup(request, code);
}
