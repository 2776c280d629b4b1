// WebRequest: one HTTP transfer on a pooled easy handle, with callbacks,
// completion and a bounded wait; and its twenty asynchronous verbs.
//
// Threads: the constructor, the verbs, wait(), abort() and the destructor run
// on the owner's thread. For numeric-address URLs the transfer runs on the
// backend's transfer thread, which calls the data, header and completion
// callbacks while it holds the backend's multi-handle lock: callbacks must
// not start, close or destroy requests. For domain-name URLs the verb runs
// the transfer on the caller's thread before it returns (the direct path)
// and no completion callback is called.
//
// Locks: the constructor locks the pooled handle's mutex and the destructor
// unlocks it, so requests for the same origin and method class run one after
// another. Do not keep a request alive while constructing another one for
// the same origin and method class on the same thread. A request set up for
// TLS holds the trust store's CA-file read lock until it is destroyed.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "webclient/export.h"

struct x509_store_ctx_st;

// One piece of a response, handed to a data or header callback.
struct WEBCLIENT_API DataReceivedEventArgs {
    bool cancel = false;          // set by the callback to stop the transfer (code 23)
    const char* data = nullptr;   // not NUL-terminated; valid during the call only
    int32_t size = 0;
    double content_length = -1.0; // -1.0 while unknown
};

using DataReceivedCallback = std::function<void(std::shared_ptr<DataReceivedEventArgs>)>;
using CompletionCallback = std::function<void()>;

class WEBCLIENT_API WebRequest {
public:
    struct impl;

    WebRequest(std::string const& url, std::string const& method, bool useSsl);
    ~WebRequest();
    WebRequest(const WebRequest&) = delete;
    WebRequest& operator=(const WebRequest&) = delete;

    // ---- Asynchronous verbs (throw WebException when set-up fails) ----
    void getAsync(std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  CompletionCallback const& onDone);
    void getAsync(std::string const& user, std::string const& password,
                  std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  CompletionCallback const& onDone);
    void getAsync(std::string const& user, std::string const& password,
                  std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    void getAsync(std::string const& user, std::string const& password, std::string const& cookie,
                  std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    void downloadAsync(DataReceivedCallback const& onData, CompletionCallback const& onDone);
    void downloadAsync(std::string const& user, std::string const& password,
                       std::vector<std::string>& headers, DataReceivedCallback const& onData,
                       CompletionCallback const& onDone);
    void downloadAsync(std::string const& user, std::string const& password,
                       std::vector<std::string>& headers, DataReceivedCallback const& onData,
                       DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    // `body` is not copied: it is sent up to its first NUL and must stay
    // alive and unchanged until the transfer has ended.
    void postAsync(std::string const& body, std::vector<std::string>& headers,
                   DataReceivedCallback const& onData, CompletionCallback const& onDone);
    void postAsync(std::string const& user, std::string const& password, std::string const& body,
                   std::vector<std::string>& headers, DataReceivedCallback const& onData,
                   CompletionCallback const& onDone);
    void postAsync(std::string const& user, std::string const& password, std::string const& body,
                   std::vector<std::string>& headers, DataReceivedCallback const& onData,
                   DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    void putAsync(std::string const& body, std::vector<std::string>& headers,
                  DataReceivedCallback const& onData, CompletionCallback const& onDone);
    void putAsync(std::string const& user, std::string const& password, std::string const& body,
                  std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  CompletionCallback const& onDone);
    void putAsync(std::string const& user, std::string const& password, std::string const& body,
                  std::vector<std::string>& headers, DataReceivedCallback const& onData,
                  DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    void patchAsync(std::string const& user, std::string const& password, std::string const& body,
                    std::vector<std::string>& headers, DataReceivedCallback const& onData,
                    CompletionCallback const& onDone);
    void patchAsync(std::string const& user, std::string const& password, std::string const& body,
                    std::vector<std::string>& headers, DataReceivedCallback const& onData,
                    DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    void deleteAsync(std::string const& user, std::string const& password,
                     std::vector<std::string>& headers, DataReceivedCallback const& onData,
                     CompletionCallback const& onDone);
    void deleteAsync(std::string const& user, std::string const& password,
                     std::vector<std::string>& headers, DataReceivedCallback const& onData,
                     DataReceivedCallback const& onHeader, CompletionCallback const& onDone);
    // `stream` must stay open until the transfer has ended; null sends a GET.
    void uploadAsync(std::string const& user, std::string const& password,
                     std::vector<std::string>& headers, FILE* stream,
                     DataReceivedCallback const& onData, CompletionCallback const& onDone);
    void uploadAsyncByPost(std::string const& user, std::string const& password,
                           std::vector<std::string>& headers, std::string const& fieldName,
                           std::string const& filePath, DataReceivedCallback const& onData,
                           CompletionCallback const& onDone);
    void uploadAsyncByPost(std::string const& user, std::string const& password,
                           std::vector<std::string>& headers,
                           std::map<std::string, std::string>& formFields,
                           std::string const& fieldName, std::string const& filePath,
                           DataReceivedCallback const& onData, DataReceivedCallback const& onHeader,
                           CompletionCallback const& onDone);

    // ---- Set-up and transfer plumbing ----
    void setupRequest();
    void setupRequest_ex();
    // TLS set-up; takes the trust store's CA-file read hold (released by the
    // destructor).
    void setupSecureRequest();
    static size_t receiveData(char* data, size_t size, size_t count, void* request);
    static size_t receiveHeader(char* data, size_t size, size_t count, void* request);
    int receiveDataInternal(const char* data, int count);
    int receiveHeaderInternal(const char* data, int count);
    // 0 when completed or nothing to wait for, 1 when the deadline passed.
    int wait(int timeoutMs);
    // Called by the transfer thread when the transfer has ended.
    void setComplete();
    // Unregisters the request from the backend; does not signal completion.
    void abort();
    // HTTP status of the last response, 0 when none arrived.
    long getResponseCode();
    // Throws WebException with the libcurl error text.
    [[noreturn]] void handleError();
    // Runs the transfer on the calling thread (direct path).
    void EasyWebRequestPerform(void* handle);
    std::string getPrintableUrl() const;
    static CURLcode sslctx_function(CURL* curl, void* sslctx, void* request);
    static int verify_callback(int preverify_ok, x509_store_ctx_st* ctx);

    struct impl* impl;  // owned
    std::vector<std::string> headers;
    std::string cookie;
    std::string url;
    std::string method;
    double content_length;
    curl_slist* header_list;
    bool completed;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool use_ssl;
    std::string ca_file;
};

// `url` with the values of "password=" and "client_secret=" query
// parameters replaced by "***". Every log line that shows a URL uses it.
WEBCLIENT_API std::string get_printable_url(std::string const& url);
