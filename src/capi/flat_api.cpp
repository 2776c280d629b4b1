// The exported plain-type functions: each makes a WebClient for the call,
// converts its arguments, runs one blocking verb and hands back a Strdup
// copy of the body. A WebException becomes an error line and a failure
// value; other exceptions reach the caller.
#include "webclient/flat_api.h"

#include <unistd.h>

#include <cstdio>
#include <memory>

#include "util/log.h"
#include "util/standard_descriptors.h"
#include "util/whole_sleep.h"
#include "webclient/web_client.h"
#include "webclient/webRequestcontroller.h"

namespace {

constexpr unsigned kBackendSettleSeconds = 1;

std::string orEmpty(const char* text) { return text == nullptr ? std::string() : std::string(text); }

// Runs `exchange`; a WebException becomes "[<name>] Exception : ..." and a
// null result. Other exceptions pass through.
template <typename Exchange>
char* bodyOrNull(const char* name, Exchange exchange) {
    try {
        return exchange();
    } catch (const WebException& e) {
        WC_LOG_ERROR("[%s] Exception : %s", name, e.what());
        return nullptr;
    }
}

}  // namespace

std::vector<std::string> header_array_to_vector(const char** headers) {
    std::vector<std::string> lines;
    if (headers == nullptr) return lines;
    for (const char** entry = headers; *entry != nullptr; ++entry) lines.emplace_back(*entry);
    return lines;
}

char* webClientGet(const char* url, const char* user, const char* password, const char** headers,
                   bool useSsl) {
    return bodyOrNull("webClientGet", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string response, error;
        client.get(std::string(url), userText, passwordText, lines, response, error, useSsl);
        return Strdup(response.c_str());
    });
}

// *responseHeaders is written only on success.
char* webClientGet_ex(const char* url, const char* user, const char* password, const char** headers,
                      char** responseHeaders, bool useSsl) {
    return bodyOrNull("webClientGet_ex", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string headerText, response, error;
        client.get(std::string(url), userText, passwordText, lines, headerText, response, error,
                   useSsl);
        char* body = Strdup(response.c_str());
        *responseHeaders = Strdup(headerText.c_str());
        return body;
    });
}

char* webClientGet_ex2(const char* url, const char* user, const char* password, const char* cookie,
                       const char** headers, int* responseCode, bool useSsl) {
    return bodyOrNull("webClientGet_ex2", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::string cookieText = orEmpty(cookie);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string headerText, response, error;
        client.get(std::string(url), userText, passwordText, cookieText, lines, headerText, response,
                   error, responseCode, useSsl);
        return Strdup(response.c_str());
    });
}

char* webClientPut(const char* url, const char* user, const char* password, const char* data,
                   const char** headers, bool useSsl) {
    return bodyOrNull("webClientPut", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password), body = orEmpty(data);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string response, error;
        client.put(std::string(url), userText, passwordText, body, lines, response, error, useSsl);
        return Strdup(response.c_str());
    });
}

char* webClientPost(const char* url, const char* user, const char* password, const char* data,
                    const char** headers, bool useSsl) {
    return bodyOrNull("webClientPost", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password), body = orEmpty(data);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string response, error;
        client.post(std::string(url), userText, passwordText, body, lines, response, error, useSsl);
        return Strdup(response.c_str());
    });
}

char* webClientDelete(const char* url, const char* user, const char* password, const char** headers,
                      bool useSsl) {
    return bodyOrNull("webClientDelete", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string response, error;
        client.deleteM(std::string(url), userText, passwordText, lines, response, error, useSsl);
        return Strdup(response.c_str());
    });
}

// Unlike the others, a null `data` is not read as empty: like a null url it
// throws std::logic_error to the caller.
char* webClientPatch(const char* url, const char* user, const char* password, const char* data,
                     const char** headers, bool useSsl) {
    return bodyOrNull("webClientPatch", [&]() -> char* {
        WebClient client;
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string urlText(url);
        std::string body(data);
        std::string response, error;
        client.patch(urlText, userText, passwordText, body, lines, response, error, useSsl);
        return Strdup(response.c_str());
    });
}

char* webClientUploadByPost(const char* url, const char* user, const char* password,
                            const char** headers, const char* fieldName, const char* filePath,
                            int* responseCode, bool useSsl) {
    if (url == nullptr || filePath == nullptr || fieldName == nullptr) {
        WC_LOG_ERROR("webClientUploadByPost invalid argument!");
        return nullptr;
    }
    return bodyOrNull("webClientUploadByPost", [&]() -> char* {
        WebClient client;
        std::string field(fieldName), path(filePath);
        std::string userText = orEmpty(user), passwordText = orEmpty(password);
        std::string urlText(url);
        std::vector<std::string> lines = header_array_to_vector(headers);
        std::string response, error;
        client.uploadByPost(urlText, userText, passwordText, lines, field, path, response,
                            responseCode, error, useSsl);
        return response.empty() ? nullptr : Strdup(response.c_str());
    });
}

namespace {

// Shared by both download functions. Returns -1 for bad arguments or an
// unopenable file; otherwise the status stored by the download (or -1 when
// it stored none). Throws what the client throws.
int downloadToFile(const char* url, const char* user, const char* password, const char** headers,
                   const char* filePath, int* responseCode, std::string* error, bool useSsl) {
    if (url == nullptr || filePath == nullptr) {
        WC_LOG_ERROR("[webClientDownload] invalid argument!");
        return -1;
    }
    WebClient client;
    download_param param;
    int status = -1;
    if (user != nullptr) param.user = user;
    if (password != nullptr) param.password = password;
    param.url = url;
    param.headers = header_array_to_vector(headers);
    // "e": close-on-exec, so a program the host starts meanwhile does not
    // keep the half-written file open.
    webclient::occupyFreeStandardDescriptors();
    FILE* stream = fopen(filePath, "w+e");
    if (stream == nullptr) {
        WC_LOG_ERROR("[webClientDownloa] failed to open file %s", filePath);
        return -1;
    }
    std::shared_ptr<FILE> file(stream, fclose);
    std::string text = client.downloadStream(&param, file, responseCode != nullptr ? &status : nullptr,
                                             useSsl);
    if (error != nullptr) *error = std::move(text);
    if (responseCode != nullptr) *responseCode = status;
    return 0;
}

}  // namespace

int webClientDownload_ex(const char* url, const char* user, const char* password,
                         const char** headers, const char* filePath, std::string& error,
                         bool useSsl) {
    try {
        int status = -1;
        if (downloadToFile(url, user, password, headers, filePath, &status, &error, useSsl) != 0) {
            return -1;
        }
        return status;
    } catch (const WebException& e) {
        WC_LOG_ERROR("[webClientDownload] Exception : %s", e.what());
        return 0;
    }
}

int webClientDownload(const char* url, const char* user, const char* password, const char** headers,
                      const char* filePath, bool useSsl) {
    try {
        return downloadToFile(url, user, password, headers, filePath, nullptr, nullptr, useSsl);
    } catch (const WebException& e) {
        WC_LOG_ERROR("[webClientDownload] Exception : %s", e.what());
        return 0;
    }
}

void initCurlBackEnd() {
    try {
        WebRequestManager::getInstance()->initBackEnd();
        webclient::sleepWholeSeconds(kBackendSettleSeconds);
    } catch (const WebException& e) {
        debug("initCurlBackEnd : %s", e.what());
    }
}

void stopCurlBackEnd() {
    try {
        WebRequestManager::getInstance()->stopBackEnd();
    } catch (const WebException& e) {
        WC_LOG_ERROR("stopCurlBackEnd : %s", e.what());
    }
}

int WebClientModuleInit(json_object* /*config*/) {
    initCurlBackEnd();
    return 0;
}

int WebClientModuleDeinit(json_object* /*config*/) {
    stopCurlBackEnd();
    return 0;
}
