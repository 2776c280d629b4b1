// The twenty blocking verbs: each names its method, wait limit, outputs and
// the asynchronous verb that starts its transfer.
#include "client/exchange.h"

const CompletionCallback kNoCompletion;

using Data = DataReceivedCallback const&;

void WebClient::downloadString(std::string const& url, std::string& response, std::string& error,
                               bool useSsl) {
    runExchange(*this, url, useSsl,
                {"downloadString", "GET", downloadTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) { r.downloadAsync(onData, kNoCompletion); }});
}

void WebClient::uploadByPost(std::string const& url, std::string const& user,
                             std::string const& password, std::vector<std::string>& headers,
                             std::string const& fieldName, std::string const& filePath,
                             std::string& response, int* responseCode, std::string& error,
                             bool useSsl) {
    runExchange(*this, url, useSsl,
                {"uploadByPost", "POST", uploadTimeoutMs, &response, nullptr, &error, responseCode,
                 [&](WebRequest& r, Data onData, Data) {
                     r.uploadAsyncByPost(user, password, headers, fieldName, filePath, onData,
                                         kNoCompletion);
                 }});
}

void WebClient::uploadByPost(std::string const& url, std::string const& user,
                             std::string const& password, std::vector<std::string>& headers,
                             std::map<std::string, std::string>& formFields,
                             std::string const& fieldName, std::string const& filePath,
                             std::string& responseHeaders, std::string& response,
                             std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"uploadByPost", "POST", uploadTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.uploadAsyncByPost(user, password, headers, formFields, fieldName, filePath,
                                         onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::post(std::string const& url, std::string const& user, std::string const& password,
                     std::string const& body, std::vector<std::string>& headers,
                     std::string& response, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"post", "POST", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.postAsync(user, password, body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::post(std::string const& url, std::string const& user, std::string const& password,
                     std::string const& body, std::vector<std::string>& headers,
                     std::string& response, int& responseCode, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"post", "POST", requestTimeoutMs, &response, nullptr, &error, &responseCode,
                 [&](WebRequest& r, Data onData, Data) {
                     r.postAsync(user, password, body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::post(std::string const& url, std::string const& body,
                     std::vector<std::string>& headers, std::string& response, std::string& error,
                     bool useSsl) {
    runExchange(*this, url, useSsl,
                {"post", "POST", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.postAsync(body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::post(std::string const& url, std::string const& user, std::string const& password,
                     std::string const& body, std::vector<std::string>& headers,
                     std::string& responseHeaders, std::string& response, std::string& error,
                     bool useSsl) {
    runExchange(*this, url, useSsl,
                {"post", "POST", requestTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.postAsync(user, password, body, headers, onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::put(std::string const& url, std::string const& user, std::string const& password,
                    std::string const& body, std::vector<std::string>& headers,
                    std::string& response, std::string& error, bool useSsl) {
    put(url, user, password, body, headers, response, static_cast<int*>(nullptr), error, useSsl);
}

void WebClient::put(std::string const& url, std::string const& user, std::string const& password,
                    std::string const& body, std::vector<std::string>& headers,
                    std::string& response, int* responseCode, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"put", "PUT", requestTimeoutMs, &response, nullptr, &error, responseCode,
                 [&](WebRequest& r, Data onData, Data) {
                     r.putAsync(user, password, body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::put(std::string const& url, std::string const& user, std::string const& password,
                    std::string const& body, std::vector<std::string>& headers,
                    std::string& responseHeaders, std::string& response, std::string& error,
                    bool useSsl) {
    runExchange(*this, url, useSsl,
                {"put", "PUT", requestTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.putAsync(user, password, body, headers, onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::put(std::string const& url, std::string const& body,
                    std::vector<std::string>& headers, std::string& response, std::string& error,
                    bool useSsl) {
    runExchange(*this, url, useSsl,
                {"put", "PUT", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.putAsync(body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::get(std::string const& url, std::string const& user, std::string const& password,
                    std::vector<std::string>& headers, std::string& response, std::string& error,
                    bool useSsl) {
    get(url, user, password, headers, response, static_cast<int*>(nullptr), error, useSsl);
}

void WebClient::get(std::string const& url, std::string const& user, std::string const& password,
                    std::vector<std::string>& headers, std::string& response, int* responseCode,
                    std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"get", "GET", requestTimeoutMs, &response, nullptr, &error, responseCode,
                 [&](WebRequest& r, Data onData, Data) {
                     r.getAsync(user, password, headers, onData, kNoCompletion);
                 }});
}

void WebClient::get(std::string const& url, std::string const& user, std::string const& password,
                    std::vector<std::string>& headers, std::string& responseHeaders,
                    std::string& response, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"get", "GET", requestTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.getAsync(user, password, headers, onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::get(std::string const& url, std::string const& user, std::string const& password,
                    std::string const& cookie, std::vector<std::string>& headers,
                    std::string& responseHeaders, std::string& response, std::string& error,
                    int* responseCode, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"get", "GET", requestTimeoutMs, &response, &responseHeaders, &error, responseCode,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.getAsync(user, password, cookie, headers, onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::get(std::string const& url, std::vector<std::string>& headers,
                    std::string& response, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"get", "GET", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.getAsync(headers, onData, kNoCompletion);
                 }});
}

void WebClient::deleteM(std::string const& url, std::string const& user,
                        std::string const& password, std::vector<std::string>& headers,
                        std::string& response, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"deleteM", "DELETE", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.deleteAsync(user, password, headers, onData, kNoCompletion);
                 }});
}

void WebClient::deleteM(std::string const& url, std::string const& user,
                        std::string const& password, std::vector<std::string>& headers,
                        std::string& responseHeaders, std::string& response, std::string& error,
                        bool useSsl) {
    runExchange(*this, url, useSsl,
                {"deleteM", "DELETE", requestTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.deleteAsync(user, password, headers, onData, onHeader, kNoCompletion);
                 }});
}

void WebClient::patch(std::string const& url, std::string const& user, std::string const& password,
                      std::string const& body, std::vector<std::string>& headers,
                      std::string& response, std::string& error, bool useSsl) {
    runExchange(*this, url, useSsl,
                {"patch", "PATCH", requestTimeoutMs, &response, nullptr, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data) {
                     r.patchAsync(user, password, body, headers, onData, kNoCompletion);
                 }});
}

void WebClient::patch(std::string const& url, std::string const& user, std::string const& password,
                      std::string const& body, std::vector<std::string>& headers,
                      std::string& responseHeaders, std::string& response, std::string& error,
                      bool useSsl) {
    runExchange(*this, url, useSsl,
                {"patch", "PATCH", requestTimeoutMs, &response, &responseHeaders, &error, nullptr,
                 [&](WebRequest& r, Data onData, Data onHeader) {
                     r.patchAsync(user, password, body, headers, onData, onHeader, kNoCompletion);
                 }});
}
