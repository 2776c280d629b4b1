// EasyWebClient: one easy handle per object, performed on the caller's
// thread; no pool, no backend, no peer verification.
#include "webclient/easy_web_client.h"

#include "engine/close_on_exec_socket.h"
#include "engine/handle_renewal.h"
#include "engine/header_lines.h"
#include "engine/upload_reader.h"
#include "util/callback_barrier.h"
#include "util/log.h"
#include "webclient/flat_api.h"
#include "webclient/web_request.h"

namespace {

constexpr long kLowSpeedLimitBytes = 100;
constexpr long kLowSpeedTimeSeconds = 600;
const std::string kNoCookie;

// The response code, or -1 when libcurl cannot report it.
int responseCodeOf(CURL* handle) {
    long code = 0;
    return curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK ? static_cast<int>(code)
                                                                                : -1;
}

// Sets the credentials and the cookie. libcurl refuses a text over its 8 MB
// limit and would then send the request without it: the reason, or null.
const char* refusedTextReason(CURL* h, const std::string& user, const std::string& password,
                              const std::string& cookie) {
    if (!user.empty() && !password.empty()) {
        const std::string userPassword = user + ":" + password;
        if (curl_easy_setopt(h, CURLOPT_USERPWD, userPassword.c_str()) != CURLE_OK) {
            return "libcurl refused the user name and password";
        }
    }
    // As for WebRequest: the option follows redirects and yields to a Cookie line.
    if (!cookie.empty() &&
        curl_easy_setopt(h, CURLOPT_COOKIE, webclient::withoutLineEnding(cookie).c_str()) != CURLE_OK) {
        return "libcurl refused the cookie";
    }
    return nullptr;
}

}  // namespace

EasyWebClient::EasyWebClient()
    : curl_handle(curl_easy_init()),
      header_list(nullptr),
      form_post(nullptr),
      total_timeout(600),
      connect_timeout(20) {}

EasyWebClient::~EasyWebClient() {
    if (header_list != nullptr) curl_slist_free_all(header_list);
    if (form_post != nullptr) curl_formfree(form_post);
    webclient::cleanupEasyHandle(curl_handle);
}

void EasyWebClient::setupRequest(std::string const& url, std::string const& user,
                                 std::string const& password, std::string const& cookie,
                                 std::vector<std::string>& headers) {
    // An object whose handle could not be made stays without one.
    if (curl_handle == nullptr) return;
    curl_handle = webclient::handleForNextTransfer(curl_handle);
    if (curl_handle == nullptr) return;
    CURL* h = curl_handle;
    curl_easy_setopt(h, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &EasyWebClient::receiveData);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &EasyWebClient::receiveHeader);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimitBytes);
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeSeconds);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, connect_timeout);
    curl_easy_setopt(h, CURLOPT_TIMEOUT, total_timeout);
    curl_easy_setopt(h, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    (void)webclient::useCloseOnExecSockets(h);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 30L);  // older libcurl has no limit
    // HTTP/1.1 as on the other path: the header text stays in one form.
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // Each call sends its own lines only: an object used again must not
    // repeat an earlier call's Authorization or Cookie line.
    curl_slist* lines = nullptr;
    // An empty URL fails the transfer rather than sending it wrong.
    const char* reason = webclient::unsendableReason(url, headers, cookie);
    if (reason == nullptr) reason = webclient::unsendableCredentials(user, password);
    if (reason == nullptr) reason = refusedTextReason(h, user, password, cookie);
    if (reason != nullptr) {
        WC_LOG_ERROR("[%s] %s: not sent", "setupRequest", reason);
        curl_easy_setopt(h, CURLOPT_URL, "");
    } else if (!webclient::buildHeaderList(headers, lines)) {
        WC_LOG_ERROR("[%s] cannot build the request header lines", "setupRequest");
        curl_easy_setopt(h, CURLOPT_URL, "");
    }
    (void)webclient::replaceHeaderList(h, header_list, lines);
}

int EasyWebClient::get(std::string const& url, std::string const& user, std::string const& password,
                       std::string const& cookie, std::vector<std::string>& headers,
                       std::string& responseHeaders, std::string& response) {
    WC_LOG_DEBUG("[%s] url: %s.", "get", get_printable_url(url).c_str());
    if (curl_handle == nullptr) return -1;
    setupRequest(url, user, password, cookie, headers);
    const CURLcode code = curl_easy_perform(curl_handle);
    if (code != CURLE_OK) {
        WC_LOG_ERROR("[%s] failed %d.", "get", static_cast<int>(code));
        return -1;
    }
    response = response_body;
    responseHeaders = response_headers;
    return responseCodeOf(curl_handle);
}

int EasyWebClient::get(std::string const& url, std::string const& user, std::string const& password,
                       std::vector<std::string>& headers, std::string& responseHeaders,
                       std::string& response, int& curlCode) {
    WC_LOG_DEBUG("[%s] url: %s.", "get", get_printable_url(url).c_str());
    if (curl_handle == nullptr) return -1;
    setupRequest(url, user, password, kNoCookie, headers);
    const CURLcode code = curl_easy_perform(curl_handle);
    curlCode = static_cast<int>(code);
    response = response_body;
    responseHeaders = response_headers;
    if (code != CURLE_OK) {
        WC_LOG_ERROR("[%s] failed %d.", "get", curlCode);
        return -1;
    }
    return responseCodeOf(curl_handle);
}

void EasyWebClient::post(std::string const& url, std::string const& user, std::string const& password,
                         std::string const& data, std::vector<std::string>& headers,
                         std::string& response, int* responseCode) {
    WC_LOG_DEBUG("[%s] url: %s.", "post", get_printable_url(url).c_str());
    int status = -1;
    if (curl_handle != nullptr) {
        setupRequest(url, user, password, kNoCookie, headers);
        curl_easy_setopt(curl_handle, CURLOPT_POST, 1L);
        curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDS, data.c_str());
        const CURLcode code = curl_easy_perform(curl_handle);
        if (code != CURLE_OK) {
            WC_LOG_ERROR("[%s] failed %d.", "post", static_cast<int>(code));
        } else {
            response = response_body;
            status = responseCodeOf(curl_handle);
        }
    }
    if (responseCode != nullptr) *responseCode = status;
}

int EasyWebClient::uploadByPost(std::string const& url, std::string const& user,
                                std::string const& password, std::vector<std::string>& headers,
                                std::string const& fieldName, std::string const& filePath,
                                std::string& response) {
    WC_LOG_DEBUG("[%s] url: %s.", "uploadByPost", get_printable_url(url).c_str());
    if (curl_handle == nullptr) return -1;
    if (webclient::namesDirectory(filePath)) {
        WC_LOG_ERROR("[%s] cannot upload %s: it is a directory", "uploadByPost", filePath.c_str());
        return -1;
    }
    setupRequest(url, user, password, kNoCookie, headers);
    if (!filePath.empty()) {
        // A form of its own, so that an object used again neither leaks nor
        // resends the earlier call's file.
        curl_httppost* form = webclient::buildUploadForm(nullptr, fieldName, filePath);
        if (form == nullptr) {
            WC_LOG_ERROR("[%s] cannot build the upload form", "uploadByPost");
            return -1;
        }
        curl_easy_setopt(curl_handle, CURLOPT_HTTPPOST, form);
        if (form_post != nullptr) curl_formfree(form_post);
        form_post = form;
    } else {
        curl_easy_setopt(curl_handle, CURLOPT_POST, 1L);
        // Without this libcurl would read a body from standard input.
        curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDSIZE, 0L);
        curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDS, "");
    }
    const CURLcode code = curl_easy_perform(curl_handle);
    if (code != CURLE_OK) {
        WC_LOG_ERROR("[%s] failed %d.", "uploadByPost", static_cast<int>(code));
        return -1;
    }
    response = response_body;
    return responseCodeOf(curl_handle);
}

// As for WebRequest: an exception (a body too large for memory) must not
// unwind through libcurl; it ends the transfer as a write error.
size_t EasyWebClient::receiveData(char* data, size_t size, size_t count, void* client) {
    return webclient::writeErrorOnException("receiveData", [&] {
        return static_cast<EasyWebClient*>(client)->receiveDataInternal(data, static_cast<int>(size * count));
    });
}

size_t EasyWebClient::receiveHeader(char* data, size_t size, size_t count, void* client) {
    return webclient::writeErrorOnException("receiveHeader", [&] {
        return static_cast<EasyWebClient*>(client)->receiveHeaderInternal(data, static_cast<int>(size * count));
    });
}

int EasyWebClient::receiveDataInternal(const char* data, int count) {
    if (data != nullptr && count >= 1) response_body.append(data, static_cast<size_t>(count));
    return count;
}

int EasyWebClient::receiveHeaderInternal(const char* data, int count) {
    if (data != nullptr && count >= 1) response_headers.append(data, static_cast<size_t>(count));
    return count;
}

char* easyWebClientGet(const char* url, const char* user, const char* password, const char* cookie,
                       const char** headers, int* responseCode) {
    if (url == nullptr) return nullptr;
    std::string urlText(url);
    std::string userText = user ? user : "", passwordText = password ? password : "";
    std::string cookieText = cookie ? cookie : "";
    std::vector<std::string> lines = header_array_to_vector(headers);
    std::string responseHeaders, response;
    EasyWebClient client;
    const int status = client.get(urlText, userText, passwordText, cookieText, lines, responseHeaders,
                                  response);
    if (responseCode != nullptr) *responseCode = status;
    return Strdup(response.c_str());
}

char* easyWebClientUploadByPost(const char* url, const char* user, const char* password,
                                const char** headers, const char* fieldName, const char* filePath,
                                int* responseCode) {
    if (url == nullptr) return nullptr;
    std::string urlText(url);
    std::string userText = user ? user : "", passwordText = password ? password : "";
    std::string field = fieldName ? fieldName : "", path = filePath ? filePath : "";
    std::vector<std::string> lines = header_array_to_vector(headers);
    std::string response;
    EasyWebClient client;
    const int status = client.uploadByPost(urlText, userText, passwordText, lines, field, path, response);
    if (responseCode != nullptr) *responseCode = status;
    return Strdup(response.c_str());
}
