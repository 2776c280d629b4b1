// The blocking verbs. Every verb runs one procedure: build a request, start
// the matching asynchronous verb, wait with the verb's limit, classify the
// libcurl result, and on a trust failure refresh the CA bundle and try once
// more.
#include "webclient/web_client.h"

#include <functional>

#include "client/exchange.h"
#include "client/web_client_impl.h"
#include "engine/web_request_impl.h"
#include "util/log.h"
#include "webclient/ca_bundle.h"

using std::placeholders::_1;

namespace {

constexpr int kRequestTimeoutMs = 600000;
constexpr int kTransferTimeoutMs = 1800000;

}  // namespace

void WebClient::impl::downloadStringCallback(std::string* output,
                                             std::shared_ptr<DataReceivedEventArgs> chunk) {
    output->append(chunk->data, static_cast<size_t>(chunk->size));
}

WebClient::WebClient()
    : impl(new class impl()),
      requestTimeoutMs(kRequestTimeoutMs),
      uploadTimeoutMs(kTransferTimeoutMs),
      downloadTimeoutMs(kTransferTimeoutMs) {}

WebClient::~WebClient() { delete impl; }

int WebClient::CheckStatus(WebRequest const& request) {
    const int code = static_cast<int>(request.impl->result);
    switch (code) {
    case CURLE_OK:
        return 0;
    case CURLE_PEER_FAILED_VERIFICATION:
        WC_LOG_ERROR("Peer certificate cannot be authenticated with given CA certificates");
        return 2;
    case CURLE_SSL_CACERT_BADFILE:
        WC_LOG_ERROR("%s curl error: %d message: Problem with reading the SSL CA cert", "CheckStatus",
                     code);
        return 2;
    default:
        WC_LOG_ERROR("%s curl error : %d", "CheckStatus", code);
        return 1;
    }
}

void runExchange(WebClient& client, std::string const& url, bool useSsl, Exchange const& exchange) {
    int attemptsLeft = useSsl ? 2 : 0;
    for (;;) {
        exchange.response->clear();
        int status = 0;
        {
            WebRequest request(url, exchange.method, useSsl);
            DataReceivedCallback onData =
                std::bind(&WebClient::impl::downloadStringCallback, client.impl, exchange.response, _1);
            DataReceivedCallback onHeader;
            if (exchange.responseHeaders != nullptr) {
                onHeader = std::bind(&WebClient::impl::downloadStringCallback, client.impl,
                                     exchange.responseHeaders, _1);
            }
            exchange.start(request, onData, onHeader);
            status = finishAttempt(client, request, exchange.logName, exchange.waitMs,
                                   exchange.responseCode, exchange.error);
        }  // the request (and its CA-file hold) is gone before any refresh
        if (!refreshAfterTrustFailure(status, useSsl, attemptsLeft)) return;
    }
}

int finishAttempt(WebClient& client, WebRequest& request, const char* logName, int waitMs,
                  int* responseCode, std::string* error) {
    waitOrDetach(request, logName, waitMs);
    if (responseCode != nullptr) *responseCode = static_cast<int>(request.getResponseCode());
    const int status = client.CheckStatus(request);
    if (status != 0 && error != nullptr) *error = failureText(request);
    return status;
}

std::string failureText(const WebRequest& request) {
    const char* buffer = request.impl->error_buffer;
    if (buffer[0] != '\0' || request.impl->result == CURLE_OK) return buffer;
    return curl_easy_strerror(request.impl->result);
}

void waitOrDetach(WebRequest& request, const char* logName, int waitMs) {
    try {
        if (request.wait(waitMs) != 0) throw WebException("Operation timed out", nullptr);
    } catch (const WebException& timeout) {
        WC_LOG_DEBUG("[%s] exception %s", logName, timeout.what());
        // Reading the result of a transfer that the transfer thread may
        // still drive is unsafe: detach it first. What is read afterwards is
        // the unfinished transfer's state (result 0).
        detachUnfinished(request, logName);
    }
}

void detachUnfinished(WebRequest& request, const char* logName) {
    try {
        request.abort();
    } catch (const WebException& error) {
        WC_LOG_ERROR("[%s] detaching the unfinished request failed: %s", logName, error.what());
    }
}

bool refreshAfterTrustFailure(int status, bool useSsl, int& attemptsLeft) {
    // Without useSsl a trust failure cannot arise; should it, it ends the
    // call like any other failure rather than spending a budget it lacks.
    if (status != 2 || !useSsl) return false;
    --attemptsLeft;
    CaBundleProvider::GetInstance()->UpdateCaFile();
    return attemptsLeft > 0;
}
