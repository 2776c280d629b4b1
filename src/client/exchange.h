// The procedure shared by every blocking verb (internal to the client).
#pragma once

#include <functional>
#include <string>

#include "webclient/web_client.h"
#include "webclient/web_request.h"

// Starts the attempt's transfer with the verb's asynchronous verb; the
// header callback is empty for verbs without response headers.
using ExchangeStarter = std::function<void(WebRequest& request, DataReceivedCallback const& onData,
                                           DataReceivedCallback const& onHeader)>;

struct Exchange {
    const char* logName;
    const char* method;
    int waitMs;
    std::string* response;         // cleared before every attempt
    std::string* responseHeaders;  // null: no header callback; never cleared
    std::string* error;            // null: no error text reported
    int* responseCode;             // null: not reported
    ExchangeStarter start;
};

// Runs attempts until success, a non-trust failure or the end of the
// budget (two attempts with useSsl). May refresh the CA bundle on the
// calling thread.
void runExchange(WebClient& client, std::string const& url, bool useSsl, Exchange const& exchange);

// Waits for the attempt, reads its status code, classifies it and copies
// the error text on failure. Returns the CheckStatus value.
int finishAttempt(WebClient& client, WebRequest& request, const char* logName, int waitMs,
                  int* responseCode, std::string* error);

// A failed attempt's error text: libcurl's error buffer or, where libcurl
// left it empty, the text of its result code, so that a failure never looks
// like success to a caller who checks the text. An attempt that ran out of
// time has no result yet and carries none.
std::string failureText(const WebRequest& request);

// Waits up to waitMs; on timeout logs "[<logName>] exception ..." and
// detaches the request from the transfer thread.
void waitOrDetach(WebRequest& request, const char* logName, int waitMs);

// Detaches a request whose wait ran out from the transfer thread. A failing
// multi-handle removal is logged, not thrown: a timeout reaches the caller
// as the unfinished transfer's state, never as an exception.
void detachUnfinished(WebRequest& request, const char* logName);

// After a trust failure (status 2) of a useSsl call: spends one attempt,
// refreshes the CA bundle, and says whether another attempt is due.
bool refreshAfterTrustFailure(int status, bool useSsl, int& attemptsLeft);

extern const CompletionCallback kNoCompletion;
