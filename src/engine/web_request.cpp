// WebRequest: construction on a pooled handle, the common libcurl set-up,
// data delivery, completion, waiting and tear-down.
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

#include <openssl/x509.h>

#include "engine/close_on_exec_socket.h"
#include "engine/handle_renewal.h"
#include "engine/header_lines.h"
#include "engine/url_masking.h"
#include "engine/web_request_impl.h"
#include "engine/yield_wait.h"
#include "util/ascii_case.h"
#include "util/callback_barrier.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "util/thread_holds.h"
#include "webclient/ca_bundle.h"
#include "webclient/exception.h"
#include "webclient/webRequestcontroller.h"

namespace {

constexpr long kLowSpeedLimitBytes = 100;
constexpr long kLowSpeedTimeSeconds = 600;
constexpr long kConnectTimeoutSeconds = 20;
constexpr long kTotalTimeoutSeconds = 1200;
// libcurl before 8.3 follows redirects without limit; a loop would then run
// until the wait limit. This is the limit newer libcurl applies by default.
constexpr long kMaxRedirects = 30;
constexpr int kSlowWaitWarningSeconds = 30;
// How long an owner keeps checking for completion before it sleeps. Waking
// a sleeping thread costs tens of microseconds (more on a virtual machine),
// as much as a whole exchange with a nearby server; a short check that
// yields the processor lets quick answers return without that cost.
constexpr long kCompletionSpinMicroseconds = 200;

// Requests to the local HTTPS endpoint never verify TLS.
// The host must really be 127.0.0.1: in "https://127.0.0.1:pw@peer/" those
// characters are only a user name and password, and the peer is verified.
bool isLocalHttpsUrl(const std::string& url) {
    static const char kLocal[] = "https://127.0.0.1";
    const bool localPrefix = url == kLocal || url.rfind("https://127.0.0.1:", 0) == 0 ||
                             url.rfind("https://127.0.0.1/", 0) == 0;
    if (!localPrefix) return false;
    const size_t authorityEnd = url.find_first_of("/?#", sizeof kLocal - 1);
    return url.find('@') >= authorityEnd;
}

// "[url] reason: not sent"; megabytes of URL make no log line. Never
// throws: the constructor calls it once it owns the request's parts.
void logNotSent(const WebRequest& request, const char* reason) noexcept {
    const bool urlTooLong = request.url.size() > webclient::kMaxOptionText;
    try {
        WC_LOG_ERROR("[%s] %s: not sent", urlTooLong ? "..." : request.getPrintableUrl().c_str(), reason);
    } catch (const std::bad_alloc&) {
        WC_LOG_ERROR("[...] %s: not sent", reason);
    }
}

// An easy handle that ran curl_easy_perform keeps a multi handle of its
// own, with a socket pair, until it is cleaned up: pooled for up to 900 s,
// that made two descriptors for every domain name used in that time. The
// origin's connection stays in its share; the next request makes a handle.
void dropDirectPathHandle(WebRequest& request) {
    if (!request.impl->performed_here) return;
    CURL*& pooled = request.impl->web_handle->curl_handle;
    webclient::cleanupEasyHandle(pooled);
    pooled = nullptr;
    request.impl->curl_handle = nullptr;
}

}  // namespace

// Held locked, the pooled handle is brought to a clean state for the next
// transfer: reset, or new where libcurl cannot safely reuse one (or the
// last one was dropped).
void takeCleanHandle(WebRequest& request) {
    CURL*& pooled = request.impl->web_handle->curl_handle;
    pooled = webclient::handleForNextTransfer(pooled);
    request.impl->curl_handle = pooled;
    if (pooled == nullptr) return;
    memset_s_helper(request.impl->error_buffer, sizeof request.impl->error_buffer, 0,
                    sizeof request.impl->error_buffer);
    curl_easy_setopt(pooled, CURLOPT_ERRORBUFFER, request.impl->error_buffer);
}

std::string get_printable_url(std::string const& url) {
    return webclient::escapeControlBytes(webclient::withRangesMasked(url, webclient::urlSecretRanges(url, true)));
}

WebRequest::WebRequest(std::string const& url, std::string const& method, bool useSsl)
    : impl(nullptr),
      url(url),
      method(method),
      content_length(-1.0),
      header_list(nullptr),
      completed(false),
      mutex(PTHREAD_MUTEX_INITIALIZER),
      cond(PTHREAD_COND_INITIALIZER),
      use_ssl(useSsl) {
    // Made here rather than first in the member list, and handed over only
    // once the pool has answered, so that nothing leaks when a copy above or
    // the pool throws: a constructor that throws gets no destructor call.
    std::unique_ptr<struct impl> made(new struct impl());
    if (webclient::insideTransferCallback()) {
        logNotSent(*this, "made inside a transfer callback");
    } else {
        made->web_handle = WebHandleManager::getInstance()->GetWebHandle(url, method);
    }
    impl = made.release();
    if (impl->web_handle && !impl->web_handle->LockUnlessHeldHere()) {
        logNotSent(*this, "this thread still keeps a request for this origin and method");
        impl->web_handle.reset();
    }
    if (impl->web_handle) takeCleanHandle(*this);
    if (impl->curl_handle == nullptr) WC_LOG_ERROR("WebRequest handle is NULL");
    if (isLocalHttpsUrl(url)) {
        use_ssl = false;
        if (useSsl) WC_LOG_INFO("WebRequest() Accessing https://127.0.0.1, disable SSL by default");
    }
}

WebRequest::~WebRequest() {
    try {
        WebRequestManager::getInstance()->closeRequest(this);
    } catch (const Exception&) {
        // Already logged by the backend ("curl_multi_remove_handle error");
        // a destructor must not throw, and the handle is released below.
    }
    if (impl->web_handle) {
        dropDirectPathHandle(*this);
        impl->web_handle->Unlock();
    }
    if (impl->form_post != nullptr) curl_formfree(impl->form_post);
    if (header_list != nullptr) curl_slist_free_all(header_list);
    if (impl->holds_ca_file) CaBundleProvider::GetInstance()->PutCaFile();
    delete impl;
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
}

namespace {

// The options every transfer gets, in libcurl's order of application. With
// `deliverHeaders` the response header lines go to `on_header` and the
// cookie, if any, is sent.
void applyBaseOptions(WebRequest& request, bool deliverHeaders) {
    if (const char* reason = webclient::unsendableReason(request.url, request.headers, request.cookie)) {
        refuseRequest(request, reason);
    }
    CURL* handle = request.impl->curl_handle;
    setCheckedOption(request, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
    setCheckedOption(request, CURLOPT_URL, request.url.c_str());
    setCheckedOption(request, CURLOPT_FOLLOWLOCATION, 1L);
    setCheckedOption(request, CURLOPT_WRITEFUNCTION, &WebRequest::receiveData);
    if (deliverHeaders) setCheckedOption(request, CURLOPT_HEADERFUNCTION, &WebRequest::receiveHeader);
    setCheckedOption(request, CURLOPT_WRITEDATA, &request);
    if (deliverHeaders) setCheckedOption(request, CURLOPT_HEADERDATA, &request);
    setCheckedOption(request, CURLOPT_SSL_VERIFYPEER, 0L);
    setCheckedOption(request, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimitBytes);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeSeconds);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, kTotalTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    setCheckedOption(request, CURLOPT_OPENSOCKETFUNCTION, &webclient::openCloseOnExecSocket);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaxRedirects);
    // libcurl would offer HTTP/2 to every TLS server. Callers read the
    // response header text, which HTTP/2 changes ("HTTP/2 200 " with no
    // reason, lower-case names), and a stream cut short after the server's
    // graceful close comes back without error text.
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_slist* lines = nullptr;
    if (!webclient::buildHeaderList(request.headers, lines)) {
        WC_LOG_ERROR("[%s] cannot build the request header lines", request.getPrintableUrl().c_str());
        request.handleError();
    }
    const CURLcode listed = webclient::replaceHeaderList(handle, request.header_list, lines);
    if (listed != CURLE_OK) failSetup(request, listed);
    // libcurl's cookie option, not a header line: it follows redirects (an
    // http to https hop on the same device keeps its session, where libcurl
    // drops a Cookie line), and a caller's own Cookie line overrides it.
    if (deliverHeaders && !request.cookie.empty()) {
        request.cookie = webclient::withoutLineEnding(request.cookie);
        setCheckedOption(request, CURLOPT_COOKIE, request.cookie.c_str());
    }
}

}  // namespace

void WebRequest::setupRequest() { applyBaseOptions(*this, false); }

void WebRequest::setupRequest_ex() { applyBaseOptions(*this, true); }

// libcurl calls these from C: no exception may unwind through its frames,
// so any escaping exception aborts the transfer as a write error instead,
// logged so that the write error's real cause is not lost.
size_t WebRequest::receiveData(char* data, size_t size, size_t count, void* request) {
    return webclient::writeErrorOnException("receiveData", [&] {
        return static_cast<WebRequest*>(request)->receiveDataInternal(data, static_cast<int>(size * count));
    });
}

size_t WebRequest::receiveHeader(char* data, size_t size, size_t count, void* request) {
    return webclient::writeErrorOnException("receiveHeader", [&] {
        return static_cast<WebRequest*>(request)->receiveHeaderInternal(data, static_cast<int>(size * count));
    });
}

int WebRequest::receiveDataInternal(const char* data, int count) {
    if (content_length < 0.0) {
        double length = -1.0;
        if (curl_easy_getinfo(impl->curl_handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length) != CURLE_OK) {
            handleError();
        }
        // A length a 32-bit integer cannot hold stays unknown rather than wrap.
        if (static_cast<double>(count) <= length && length <= static_cast<double>(INT32_MAX)) {
            content_length = static_cast<int32_t>(length);
        }
    }
    auto args = std::make_shared<DataReceivedEventArgs>();
    args->data = data;
    args->size = count;
    args->content_length = content_length;
    if (impl->on_data) impl->on_data(args);
    if (args->cancel) {
        WC_LOG_DEBUG(" receiveDataInternal cancel ");
        return 0;
    }
    return count;
}

namespace {

bool startsWithNoCase(std::string_view line, std::string_view prefix) {
    return line.size() >= prefix.size() && webclient::asciiEqualNoCase(line.substr(0, prefix.size()), prefix);
}

// Watches the header lines of a request that stops at a 303: true at the
// blank line that ends a 303 naming a location (libcurl follows only then;
// a 303 without one is an ordinary answer, body and all).
bool endsSeeOtherAnswer(WebRequest& request, const char* data, int count) {
    struct WebRequest::impl& state = *request.impl;
    if (state.see_other_method == nullptr) return false;
    const std::string_view line(data, static_cast<size_t>(count));
    if (startsWithNoCase(line, "HTTP/")) {
        state.answer_names_location = false;  // a new answer (after a 1xx or a followed hop)
    } else if (constexpr std::string_view kLocation = "Location:"; startsWithNoCase(line, kLocation)) {
        // libcurl takes the first Location that is not blank (isspace): a
        // later one, even an empty one, does not undo it.
        state.answer_names_location = state.answer_names_location ||
                                      line.find_first_not_of(" \t\r\n\v\f", kLocation.size()) != std::string_view::npos;
    }
    if ((line != "\r\n" && line != "\n") || !state.answer_names_location) return false;
    long status = 0;
    return curl_easy_getinfo(state.curl_handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 303;
}

// The URL that answered (after any hop), masked for the log.
std::string printableEffectiveUrl(const WebRequest& request) {
    const char* effective = nullptr;
    if (curl_easy_getinfo(request.impl->curl_handle, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK ||
        effective == nullptr || *effective == '\0') {
        return request.getPrintableUrl();
    }
    return get_printable_url(effective);
}

}  // namespace

int WebRequest::receiveHeaderInternal(const char* data, int count) {
    if (impl->on_header) {
        auto args = std::make_shared<DataReceivedEventArgs>();
        args->data = data;
        args->size = count;
        args->content_length = content_length;
        impl->on_header(args);
        if (args->cancel) {
            WC_LOG_DEBUG(" receiveDataInternal cancel ");
            return 0;
        }
    }
    if (endsSeeOtherAnswer(*this, data, count)) {
        WC_LOG_INFO("[%s] %s answered 303: the write is done; not sending the %s again to the other location",
                    printableEffectiveUrl(*this).c_str(), impl->see_other_method, impl->see_other_method);
        impl->stopped_at_see_other = true;
        return 0;
    }
    return count;
}

void settleSeeOtherStop(WebRequest& request) {
    if (!request.impl->stopped_at_see_other || request.impl->result != CURLE_WRITE_ERROR) return;
    request.impl->result = CURLE_OK;
    request.impl->error_buffer[0] = '\0';
}

void WebRequest::setComplete() {
    // The line needs memory; its owner's completion must not.
    (void)webclient::resultOrOnException("setComplete", false, [this] {
        WC_LOG_DEBUG("%p setComplete %s", static_cast<void*>(this), getPrintableUrl().c_str());
        return true;
    });
    // A throwing completion callback must not keep the owner waiting for
    // its deadline, nor end the transfer thread.
    if (impl->on_complete) {
        {
            utilities::lock::lock_guard guard(&mutex);
            impl->transfer_ended = true;
        }
        (void)webclient::resultOrOnException("setComplete", false, [this] {
            impl->on_complete();
            return true;
        });
    }
    pthread_mutex_lock(&mutex);
    __atomic_store_n(&completed, true, __ATOMIC_RELEASE);  // also read unlocked by wait()
    pthread_mutex_unlock(&mutex);
    // Signalled after the unlock, so that the woken owner does not block
    // at once on the mutex still held here (two more context switches per
    // request). The owner cannot destroy the condition meanwhile: the
    // transfer thread holds the multi lock for reading across this call,
    // and the owner's closeRequest() takes it for writing first.
    pthread_cond_signal(&cond);
}

namespace {

// The transfer thread finishes requests only between callbacks: a wait in one
// of its callbacks could only run to its deadline with every transfer frozen.
int refuseWaitInsideTransferCallback(WebRequest& request) {
    bool done = false;
    {
        utilities::lock::lock_guard guard(&request.mutex);
        done = request.completed || request.impl->transfer_ended;
    }
    if (done) return 0;
    WC_LOG_ERROR("[%s]WebRequest::wait inside a transfer callback: not waiting, the transfer cannot end meanwhile",
                 request.getPrintableUrl().c_str());
    return 1;
}

}  // namespace

int WebRequest::wait(int timeoutMs) {
    if (kpu_utilities::string_con::IsDomainInUrl(url)) return 0;
    if (impl->curl_handle == nullptr) return 0;
    if (webclient::insideTransferCallback()) return refuseWaitInsideTransferCallback(*this);
    struct timeval now;
    gettimeofday(&now, nullptr);
    // Whole seconds only: the millisecond remainder of the limit is dropped.
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + timeoutMs / 1000;
    deadline.tv_nsec = now.tv_usec * 1000;
    int outcome = 0;
    webclient::yieldUntil([this] { return __atomic_load_n(&completed, __ATOMIC_ACQUIRE); },
                          kCompletionSpinMicroseconds);
    pthread_mutex_lock(&mutex);
    if (completed) {
        pthread_mutex_unlock(&mutex);
        return 0;
    }
    while (!completed && outcome == 0) outcome = pthread_cond_timedwait(&cond, &mutex, &deadline);
    if (completed) outcome = 0;
    pthread_mutex_unlock(&mutex);
    // The same clock as the start: time() reads a coarser one that can lag
    // it, which showed a timeout of -1 seconds.
    struct timeval end;
    gettimeofday(&end, nullptr);
    const long elapsed = static_cast<long>(end.tv_sec - now.tv_sec);
    const std::string printable = getPrintableUrl();
    if (outcome == ETIMEDOUT) {
        WC_LOG_ERROR("[%s]WebRequest::wait pthread_cond_timedwait timeout(%ld seconds)",
                     printable.c_str(), elapsed);
    } else if (outcome == 0 && elapsed > kSlowWaitWarningSeconds) {
        WC_LOG_WARNING("[%s]WebRequest::wait pthread_cond_timedwait consumes %d seconds",
                       printable.c_str(), static_cast<int>(elapsed));
    } else {
        WC_LOG_DEBUG("[%s]Get the pthread_cond_timedwait result : %d, consumes %ld seconds",
                     printable.c_str(), outcome, elapsed);
    }
    return outcome == 0 ? 0 : 1;
}

void WebRequest::abort() {
    if (webclient::insideTransferCallback()) {
        WC_LOG_ERROR("[%s] abort called inside a transfer callback: ignored", getPrintableUrl().c_str());
        throw WebException("abort called inside a transfer callback", nullptr);
    }
    WebRequestManager::getInstance()->closeRequest(this);
}

long WebRequest::getResponseCode() {
    long code = 0;
    if (impl->curl_handle == nullptr) return 0;
    if (curl_easy_getinfo(impl->curl_handle, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) handleError();
    return code;
}

void WebRequest::handleError() { throw WebException(impl->error_buffer, nullptr); }

void refuseRequest(const WebRequest& request, const char* reason) {
    logNotSent(request, reason);
    throw WebException(reason, nullptr);
}

void failSetup(WebRequest& request, CURLcode code) {
    char* text = request.impl->error_buffer;
    if (text[0] == '\0') snprintf(text, CURL_ERROR_SIZE, "%s", curl_easy_strerror(code));
    request.handleError();
}

void WebRequest::EasyWebRequestPerform(void* handle) {
    static const char kTag[] = "EasyWebRequestPerform";
    const std::string printable = getPrintableUrl();
    WC_LOG_DEBUG("[%s] Begin to execute easy web client for url: %s", kTag, printable.c_str());
    // The share keeps the origin's connection open across easy handles.
    if (impl->web_handle && impl->web_handle->share != nullptr) {
        curl_easy_setopt(static_cast<CURL*>(handle), CURLOPT_SHARE, impl->web_handle->share);
    }
    impl->performed_here = true;
    impl->result = curl_easy_perform(static_cast<CURL*>(handle));
    settleSeeOtherStop(*this);
    if (impl->result == CURLE_OK) return;
    WC_LOG_ERROR("[%s] Failed to execute easy web request %s, error code: %d", kTag,
                 printable.c_str(), static_cast<int>(impl->result));
    if (impl->result == CURLE_PEER_FAILED_VERIFICATION) {
        long verifyResult = 0;
        if (curl_easy_getinfo(static_cast<CURL*>(handle), CURLINFO_SSL_VERIFYRESULT, &verifyResult) ==
            CURLE_OK) {
            WC_LOG_INFO("SSL VERIFYRESULT=%lu:%s\n", static_cast<unsigned long>(verifyResult),
                        X509_verify_cert_error_string(verifyResult));
        }
    }
}

std::string WebRequest::getPrintableUrl() const { return get_printable_url(url); }
