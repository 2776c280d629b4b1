// WebClient: the blocking verbs. Each call builds a WebRequest, starts the
// matching asynchronous verb, waits with a per-verb limit and classifies the
// libcurl result; a call with useSsl true that fails on certificate grounds
// refreshes the CA bundle and tries once more. Transfer failures come back
// as error text and status codes; a request that cannot be set up or handed
// to the transfer thread (a refused header line, a race with stopBackEnd)
// throws WebException.
//
// A client holds no mutable state: threads may share one. A verb blocks its
// thread; with useSsl it may also run a CA-bundle refresh on that thread, so
// the calling thread must not hold a live secure request of its own.
#pragma once

#include <pthread.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "webclient/exception.h"
#include "webclient/export.h"
#include "webclient/web_request.h"

// One image's entry in the host's progress map.
class WEBCLIENT_API ImageDownload {
public:
    ImageDownload();
    ~ImageDownload();

    std::string image_name;
    double downloaded;
    double total;          // content length of the last chunk (-1.0 unknown)
    double last_reported;  // job-wide percentage of the last report
    bool fail;             // host flag, reported
    bool inprogress;       // host flag, reported as 0/1
    std::string image_path;    // host's; never touched by the library
    bool cancel;               // host sets it to stop this image
    std::string image_version; // host's; never touched by the library
};

using ImageProgressMap = std::map<std::string, std::map<std::string, ImageDownload>>;

// Description of one streamed download. The lock and the map belong to the
// host; bookkeeping happens only when both are set.
class WEBCLIENT_API download_param {
public:
    download_param();
    ~download_param();

    std::string progress_key;
    std::string image_name;
    std::string url;
    std::string image_type;     // fields 4 to 8 and 11 are the host's;
    std::string image_version;  // the library never reads them
    std::string image_path;
    std::string md5;
    std::string device_id;
    std::string user;
    std::string password;
    std::string token;
    std::vector<std::string> headers;
    pthread_mutex_t* progress_lock;
    ImageProgressMap* progress_map;
    double progress_divisor;
};

// Share of the current job that belongs to completed images. Guarded by the
// host's progress lock.
extern WEBCLIENT_API double total_percentage;
// Sets total_percentage to 0.0; the host calls it before a new job.
WEBCLIENT_API void reset_download_percentage_data();

class WEBCLIENT_API WebClient {
public:
    class impl;

    WebClient();
    ~WebClient();
    WebClient(const WebClient&) = delete;
    WebClient& operator=(const WebClient&) = delete;

    // 0 success, 1 failure, 2 trust failure (libcurl 60 or 77).
    int CheckStatus(WebRequest const& request);

    void downloadString(std::string const& url, std::string& response, std::string& error,
                        bool useSsl);
    void uploadByPost(std::string const& url, std::string const& user, std::string const& password,
                      std::vector<std::string>& headers, std::string const& fieldName,
                      std::string const& filePath, std::string& response, int* responseCode,
                      std::string& error, bool useSsl);
    void uploadByPost(std::string const& url, std::string const& user, std::string const& password,
                      std::vector<std::string>& headers,
                      std::map<std::string, std::string>& formFields, std::string const& fieldName,
                      std::string const& filePath, std::string& responseHeaders,
                      std::string& response, std::string& error, bool useSsl);
    void post(std::string const& url, std::string const& user, std::string const& password,
              std::string const& body, std::vector<std::string>& headers, std::string& response,
              std::string& error, bool useSsl);
    void post(std::string const& url, std::string const& user, std::string const& password,
              std::string const& body, std::vector<std::string>& headers, std::string& response,
              int& responseCode, std::string& error, bool useSsl);
    void post(std::string const& url, std::string const& body, std::vector<std::string>& headers,
              std::string& response, std::string& error, bool useSsl);
    void post(std::string const& url, std::string const& user, std::string const& password,
              std::string const& body, std::vector<std::string>& headers,
              std::string& responseHeaders, std::string& response, std::string& error,
              bool useSsl);
    void put(std::string const& url, std::string const& user, std::string const& password,
             std::string const& body, std::vector<std::string>& headers, std::string& response,
             std::string& error, bool useSsl);
    void put(std::string const& url, std::string const& user, std::string const& password,
             std::string const& body, std::vector<std::string>& headers, std::string& response,
             int* responseCode, std::string& error, bool useSsl);
    void put(std::string const& url, std::string const& user, std::string const& password,
             std::string const& body, std::vector<std::string>& headers,
             std::string& responseHeaders, std::string& response, std::string& error, bool useSsl);
    void put(std::string const& url, std::string const& body, std::vector<std::string>& headers,
             std::string& response, std::string& error, bool useSsl);
    void get(std::string const& url, std::string const& user, std::string const& password,
             std::vector<std::string>& headers, std::string& response, std::string& error,
             bool useSsl);
    void get(std::string const& url, std::string const& user, std::string const& password,
             std::vector<std::string>& headers, std::string& response, int* responseCode,
             std::string& error, bool useSsl);
    void get(std::string const& url, std::string const& user, std::string const& password,
             std::vector<std::string>& headers, std::string& responseHeaders,
             std::string& response, std::string& error, bool useSsl);
    void get(std::string const& url, std::string const& user, std::string const& password,
             std::string const& cookie, std::vector<std::string>& headers,
             std::string& responseHeaders, std::string& response, std::string& error,
             int* responseCode, bool useSsl);
    void get(std::string const& url, std::vector<std::string>& headers, std::string& response,
             std::string& error, bool useSsl);
    void deleteM(std::string const& url, std::string const& user, std::string const& password,
                 std::vector<std::string>& headers, std::string& response, std::string& error,
                 bool useSsl);
    void deleteM(std::string const& url, std::string const& user, std::string const& password,
                 std::vector<std::string>& headers, std::string& responseHeaders,
                 std::string& response, std::string& error, bool useSsl);
    void patch(std::string const& url, std::string const& user, std::string const& password,
               std::string const& body, std::vector<std::string>& headers, std::string& response,
               std::string& error, bool useSsl);
    void patch(std::string const& url, std::string const& user, std::string const& password,
               std::string const& body, std::vector<std::string>& headers,
               std::string& responseHeaders, std::string& response, std::string& error,
               bool useSsl);

    // Streams the body into `file`; returns the error text (empty when no
    // attempt failed).
    std::string downloadStream(download_param* param, std::shared_ptr<FILE> file,
                               int* responseCode, bool useSsl);
    void downloadStream(download_param* param, std::shared_ptr<FILE> file,
                        std::string& responseHeaders, bool useSsl);

    class impl* impl;  // owned
    int requestTimeoutMs;
    int uploadTimeoutMs;
    int downloadTimeoutMs;
};
