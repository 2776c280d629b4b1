// The asynchronous verbs. Every verb runs the same submission steps (take
// headers and callbacks, common set-up, TLS set-up, the verb's own options,
// dispatch); they differ only in their method, credentials and body.
#include <sys/stat.h>

#include <memory>

#include "engine/header_lines.h"
#include "engine/web_request_impl.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "webclient/exception.h"
#include "webclient/host.h"
#include "webclient/webRequestcontroller.h"

namespace {

// A later verb on the same request: nothing of the earlier transfer's
// options (method, header lines, cookie, body, upload, form) or outcome may
// carry over.
void startAfresh(WebRequest& request) {
    takeCleanHandle(request);
    request.headers.clear();
    request.cookie.clear();
    if (request.impl->form_post != nullptr) curl_formfree(request.impl->form_post);
    request.impl->form_post = nullptr;
    request.impl->upload = UploadSource();
    request.impl->result = CURLE_OK;
    request.impl->see_other_method = nullptr;
    request.impl->answer_names_location = false;
    request.impl->stopped_at_see_other = false;
    request.content_length = -1.0;
    utilities::lock::lock_guard guard(&request.mutex);
    request.completed = false;
    request.impl->transfer_ended = false;
}

// Steps before the verb's own options. False when the request has no easy
// handle: then nothing is configured or started. Credentials that cannot go
// out are refused first, before the set-up, whose TLS part may already
// refresh the CA bundle.
bool prepare(WebRequest& request, const std::vector<std::string>* headers, const std::string& user,
             const std::string& password, const DataReceivedCallback& onData, const DataReceivedCallback* onHeader,
             const CompletionCallback& onDone, const std::string* cookie = nullptr) {
    if (request.impl->curl_handle == nullptr) return false;
    if (const char* reason = webclient::unsendableCredentials(user, password)) refuseRequest(request, reason);
    // Its options, header list and form are the transfer thread's until
    // abort(): setting them again now would race with the running transfer.
    if (request.impl->registered) {
        WC_LOG_ERROR("WebRequest is still registered: abort() it before another verb");
        throw WebException("WebRequest is still registered", nullptr);
    }
    if (request.impl->used) startAfresh(request);
    request.impl->used = true;
    if (headers != nullptr) request.headers = *headers;
    if (cookie != nullptr) request.cookie = *cookie;  // the set-up sends it
    request.impl->on_data = onData;
    request.impl->on_header = onHeader != nullptr ? *onHeader : DataReceivedCallback();
    request.impl->on_complete = onDone;
    if (onHeader != nullptr) {
        request.setupRequest_ex();
    } else {
        request.setupRequest();
    }
    if (request.use_ssl) request.setupSecureRequest();
    return true;
}

// Owns a form built before the set-up until the request takes it over.
struct FormFree {
    void operator()(curl_httppost* form) const { curl_formfree(form); }
};

// Checked (the length was checked before): should libcurl still decline
// them (no memory), the request must not go out without them.
void setCredentials(WebRequest& request, const std::string& user, const std::string& password) {
    if (user.empty() || password.empty()) return;
    const std::string userPassword = user + ":" + password;  // libcurl keeps its own copy
    setCheckedOption(request, CURLOPT_USERPWD, userPassword.c_str());
}

void setCustomMethod(WebRequest& request, const char* method) {
    curl_easy_setopt(request.impl->curl_handle, CURLOPT_CUSTOMREQUEST, method);
}

// The body is not copied: libcurl reads it up to its first NUL during the
// transfer, so the caller keeps it alive until the transfer has ended.
void setBody(WebRequest& request, const std::string& body) {
    curl_easy_setopt(request.impl->curl_handle, CURLOPT_POSTFIELDS, body.c_str());
}

void setCheckedPost(WebRequest& request, const std::string& body) {
    setCheckedOption(request, CURLOPT_POSTFIELDS, body.c_str());
}

// Domain-name URLs run here and now; numeric addresses go to the backend.
void dispatch(WebRequest& request) {
    if (kpu_utilities::string_con::IsDomainInUrl(request.url)) {
        request.EasyWebRequestPerform(request.impl->curl_handle);
    } else {
        WebRequestManager::getInstance()->beginRequest(&request);
    }
}

// Large images arrive in fewer, larger reads: one receive per 256 KiB
// instead of per 16 KiB (libcurl 7.88 still hands the data to the callback
// in pieces of at most 16 KiB).
constexpr long kDownloadBufferBytes = 256 * 1024;

enum class Reads { kDefault, kLarge };

void runGet(WebRequest& request, const std::vector<std::string>* headers, const std::string& user,
            const std::string& password, const DataReceivedCallback& onData,
            const DataReceivedCallback* onHeader, const CompletionCallback& onDone,
            Reads reads = Reads::kDefault, const std::string* cookie = nullptr) {
    if (!prepare(request, headers, user, password, onData, onHeader, onDone, cookie)) return;
    if (reads == Reads::kLarge) {
        curl_easy_setopt(request.impl->curl_handle, CURLOPT_BUFFERSIZE, kDownloadBufferBytes);
    }
    setCredentials(request, user, password);
    dispatch(request);
}

void runPost(WebRequest& request, const std::vector<std::string>& headers, const std::string& user,
             const std::string& password, const std::string& body,
             const DataReceivedCallback& onData, const DataReceivedCallback* onHeader,
             const CompletionCallback& onDone) {
    if (!prepare(request, &headers, user, password, onData, onHeader, onDone)) return;
    setCheckedOption(request, CURLOPT_POST, 1L);
    setCredentials(request, user, password);
    setCheckedPost(request, body);
    dispatch(request);
}

// A 303 says the write is done and its answer is elsewhere, to be fetched
// with GET. libcurl 7.88 would send the custom method there again, without
// a body: a DELETE of the other resource, an empty PUT over it. The
// transfer ends at the 303 instead (the header callback watches for it).
void stopAtSeeOther(WebRequest& request, const char* method) {
    request.impl->see_other_method = method;
    setCheckedOption(request, CURLOPT_HEADERFUNCTION, &WebRequest::receiveHeader);
    setCheckedOption(request, CURLOPT_HEADERDATA, &request);
}

// PUT, PATCH and DELETE (a null body sends none).
void runCustom(WebRequest& request, const char* method, const std::vector<std::string>& headers,
               const std::string& user, const std::string& password, const std::string* body,
               const DataReceivedCallback& onData, const DataReceivedCallback* onHeader,
               const CompletionCallback& onDone) {
    if (!prepare(request, &headers, user, password, onData, onHeader, onDone)) return;
    setCustomMethod(request, method);
    setCredentials(request, user, password);
    if (body != nullptr) {
        setBody(request, *body);
        // libcurl keeps a custom method across every redirect but drops the
        // body on 301 and 302 as for a POST: the next location would get an
        // empty write. There method and body travel together, as on 307 and
        // 308.
        curl_easy_setopt(request.impl->curl_handle, CURLOPT_POSTREDIR,
                         static_cast<long>(CURL_REDIR_POST_301 | CURL_REDIR_POST_302));
    }
    stopAtSeeOther(request, method);
    dispatch(request);
}

void runFormUpload(WebRequest& request, const std::vector<std::string>& headers,
                   const std::string& user, const std::string& password,
                   const std::map<std::string, std::string>* formFields,
                   const std::string& fieldName, const std::string& filePath,
                   const DataReceivedCallback& onData, const DataReceivedCallback* onHeader,
                   const CompletionCallback& onDone) {
    // Checked before the set-up, which would already change the handle; an
    // inert request (no handle) does nothing, as for every verb.
    if (request.impl->curl_handle != nullptr && webclient::namesDirectory(filePath)) {
        WC_LOG_ERROR("[%s] cannot upload %s: it is a directory", request.getPrintableUrl().c_str(), filePath.c_str());
        throw WebException("cannot upload a directory", nullptr);
    }
    std::unique_ptr<curl_httppost, FormFree> form;
    if (request.impl->curl_handle != nullptr && !filePath.empty()) {
        form.reset(webclient::buildUploadForm(formFields, fieldName, filePath));
        if (!form) {
            WC_LOG_ERROR("[%s] cannot build the upload form", request.getPrintableUrl().c_str());
            throw WebException("cannot build the upload form", nullptr);
        }
    }
    if (!prepare(request, &headers, user, password, onData, onHeader, onDone)) return;
    setCredentials(request, user, password);
    CURL* handle = request.impl->curl_handle;
    if (form) {
        curl_httppost* earlierForm = request.impl->form_post;
        request.impl->form_post = form.release();
        curl_easy_setopt(handle, CURLOPT_HTTPPOST, request.impl->form_post);
        if (earlierForm != nullptr) curl_formfree(earlierForm);  // the handle no longer points at it
    } else {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        // Without a body libcurl would read one from its default source,
        // the process's standard input; an explicit empty body prevents that.
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "");
    }
    dispatch(request);
}

const std::string kNoUser;

}  // namespace

void WebRequest::getAsync(std::vector<std::string>& headers, DataReceivedCallback const& onData,
                          CompletionCallback const& onDone) {
    runGet(*this, &headers, kNoUser, kNoUser, onData, nullptr, onDone);
}

void WebRequest::getAsync(std::string const& user, std::string const& password,
                          std::vector<std::string>& headers, DataReceivedCallback const& onData,
                          CompletionCallback const& onDone) {
    runGet(*this, &headers, user, password, onData, nullptr, onDone);
}

void WebRequest::getAsync(std::string const& user, std::string const& password,
                          std::vector<std::string>& headers, DataReceivedCallback const& onData,
                          DataReceivedCallback const& onHeader, CompletionCallback const& onDone) {
    runGet(*this, &headers, user, password, onData, &onHeader, onDone);
}

void WebRequest::getAsync(std::string const& user, std::string const& password,
                          std::string const& cookie, std::vector<std::string>& headers,
                          DataReceivedCallback const& onData, DataReceivedCallback const& onHeader,
                          CompletionCallback const& onDone) {
    runGet(*this, &headers, user, password, onData, &onHeader, onDone, Reads::kDefault, &cookie);
}

void WebRequest::downloadAsync(DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runGet(*this, nullptr, kNoUser, kNoUser, onData, nullptr, onDone, Reads::kLarge);
}

void WebRequest::downloadAsync(std::string const& user, std::string const& password,
                               std::vector<std::string>& headers, DataReceivedCallback const& onData,
                               CompletionCallback const& onDone) {
    runGet(*this, &headers, user, password, onData, nullptr, onDone, Reads::kLarge);
}

void WebRequest::downloadAsync(std::string const& user, std::string const& password,
                               std::vector<std::string>& headers, DataReceivedCallback const& onData,
                               DataReceivedCallback const& onHeader, CompletionCallback const& onDone) {
    runGet(*this, &headers, user, password, onData, &onHeader, onDone, Reads::kLarge);
}

void WebRequest::postAsync(std::string const& body, std::vector<std::string>& headers,
                           DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runPost(*this, headers, kNoUser, kNoUser, body, onData, nullptr, onDone);
}

void WebRequest::postAsync(std::string const& user, std::string const& password,
                           std::string const& body, std::vector<std::string>& headers,
                           DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runPost(*this, headers, user, password, body, onData, nullptr, onDone);
}

void WebRequest::postAsync(std::string const& user, std::string const& password,
                           std::string const& body, std::vector<std::string>& headers,
                           DataReceivedCallback const& onData, DataReceivedCallback const& onHeader,
                           CompletionCallback const& onDone) {
    runPost(*this, headers, user, password, body, onData, &onHeader, onDone);
}

void WebRequest::putAsync(std::string const& body, std::vector<std::string>& headers,
                          DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runCustom(*this, "PUT", headers, kNoUser, kNoUser, &body, onData, nullptr, onDone);
}

void WebRequest::putAsync(std::string const& user, std::string const& password,
                          std::string const& body, std::vector<std::string>& headers,
                          DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runCustom(*this, "PUT", headers, user, password, &body, onData, nullptr, onDone);
}

void WebRequest::putAsync(std::string const& user, std::string const& password,
                          std::string const& body, std::vector<std::string>& headers,
                          DataReceivedCallback const& onData, DataReceivedCallback const& onHeader,
                          CompletionCallback const& onDone) {
    runCustom(*this, "PUT", headers, user, password, &body, onData, &onHeader, onDone);
}

void WebRequest::patchAsync(std::string const& user, std::string const& password,
                            std::string const& body, std::vector<std::string>& headers,
                            DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    runCustom(*this, "PATCH", headers, user, password, &body, onData, nullptr, onDone);
}

void WebRequest::patchAsync(std::string const& user, std::string const& password,
                            std::string const& body, std::vector<std::string>& headers,
                            DataReceivedCallback const& onData, DataReceivedCallback const& onHeader,
                            CompletionCallback const& onDone) {
    runCustom(*this, "PATCH", headers, user, password, &body, onData, &onHeader, onDone);
}

void WebRequest::deleteAsync(std::string const& user, std::string const& password,
                             std::vector<std::string>& headers, DataReceivedCallback const& onData,
                             CompletionCallback const& onDone) {
    runCustom(*this, "DELETE", headers, user, password, nullptr, onData, nullptr, onDone);
}

void WebRequest::deleteAsync(std::string const& user, std::string const& password,
                             std::vector<std::string>& headers, DataReceivedCallback const& onData,
                             DataReceivedCallback const& onHeader, CompletionCallback const& onDone) {
    runCustom(*this, "DELETE", headers, user, password, nullptr, onData, &onHeader, onDone);
}

void WebRequest::uploadAsync(std::string const& user, std::string const& password,
                             std::vector<std::string>& headers, FILE* stream,
                             DataReceivedCallback const& onData, CompletionCallback const& onDone) {
    if (!prepare(*this, &headers, user, password, onData, nullptr, onDone)) return;
    setCredentials(*this, user, password);
    if (stream != nullptr) {
        struct stat info;
        if (fstat(fileno(stream), &info) != 0) {
            WC_LOG_DEBUG("uploadAsync failed to get information of upload file");
            return;
        }
        sendFileAsBody(impl->curl_handle, impl->upload, stream, info);
    }
    dispatch(*this);
}

void WebRequest::uploadAsyncByPost(std::string const& user, std::string const& password,
                                   std::vector<std::string>& headers, std::string const& fieldName,
                                   std::string const& filePath, DataReceivedCallback const& onData,
                                   CompletionCallback const& onDone) {
    runFormUpload(*this, headers, user, password, nullptr, fieldName, filePath, onData, nullptr,
                  onDone);
}

void WebRequest::uploadAsyncByPost(std::string const& user, std::string const& password,
                                   std::vector<std::string>& headers,
                                   std::map<std::string, std::string>& formFields,
                                   std::string const& fieldName, std::string const& filePath,
                                   DataReceivedCallback const& onData,
                                   DataReceivedCallback const& onHeader,
                                   CompletionCallback const& onDone) {
    runFormUpload(*this, headers, user, password, &formFields, fieldName, filePath, onData,
                  &onHeader, onDone);
}
