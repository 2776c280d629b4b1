// EasyWebClient: a small blocking client on its own easy handle, with no
// pool, no backend thread and no peer verification. One object serves one
// request; one thread at a time.
#pragma once

#include <string>
#include <vector>

#include <curl/curl.h>

#include "webclient/export.h"

class WEBCLIENT_API EasyWebClient {
public:
    EasyWebClient();
    virtual ~EasyWebClient();
    EasyWebClient(const EasyWebClient&) = delete;
    EasyWebClient& operator=(const EasyWebClient&) = delete;

    void setupRequest(std::string const& url, std::string const& user, std::string const& password,
                      std::string const& cookie, std::vector<std::string>& headers);
    int get(std::string const& url, std::string const& user, std::string const& password,
            std::string const& cookie, std::vector<std::string>& headers,
            std::string& responseHeaders, std::string& response);
    int get(std::string const& url, std::string const& user, std::string const& password,
            std::vector<std::string>& headers, std::string& responseHeaders,
            std::string& response, int& curlCode);
    void post(std::string const& url, std::string const& user, std::string const& password,
              std::string const& data, std::vector<std::string>& headers, std::string& response,
              int* responseCode);
    int uploadByPost(std::string const& url, std::string const& user, std::string const& password,
                     std::vector<std::string>& headers, std::string const& fieldName,
                     std::string const& filePath, std::string& response);

    static size_t receiveData(char* data, size_t size, size_t count, void* client);
    static size_t receiveHeader(char* data, size_t size, size_t count, void* client);
    int receiveDataInternal(const char* data, int count);
    int receiveHeaderInternal(const char* data, int count);

    std::string response_body;
    std::string response_headers;
    CURL* curl_handle;
    curl_slist* header_list;
    curl_httppost* form_post;
    long total_timeout;
    long connect_timeout;
};

// Like the functions of flat_api.h: a Strdup copy of the body owned by the
// caller (release it with the deallocator matching the host's Strdup), or
// null for a null url.
WEBCLIENT_API char* easyWebClientGet(const char* url, const char* user, const char* password,
                                     const char* cookie, const char** headers, int* responseCode);
WEBCLIENT_API char* easyWebClientUploadByPost(const char* url, const char* user,
                                              const char* password, const char** headers,
                                              const char* fieldName, const char* filePath,
                                              int* responseCode);
