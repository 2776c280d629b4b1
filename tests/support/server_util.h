// An in-process loopback HTTP(S) server for tests (cpp-httplib), bound to
// port 0, that records what it receives. Started by the constructor,
// stopped and joined by the destructor.
#pragma once

#include <httplib.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct RecordedRequest {
    std::string method;
    std::string path;
    std::multimap<std::string, std::string> headers;
    std::string body;
    std::vector<httplib::MultipartFormData> parts;  // multipart form parts, by name
    int remote_port = 0;  // the same port: the same connection
};

struct TlsFiles {
    std::string certificate;  // PEM chain
    std::string key;          // PEM private key
};

class TestServer {
public:
    using Setup = std::function<void(httplib::Server&)>;

    // Plain HTTP on `address` (the standard endpoints plus whatever `setup`
    // adds before listening).
    explicit TestServer(const std::string& address = "127.0.0.1", const Setup& setup = {});
    // HTTPS with the given certificate and key; on `port` when not 0 (a
    // server that takes over an origin).
    TestServer(const TlsFiles& tls, const std::string& address, const Setup& setup = {}, int port = 0);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    int port() const { return port_; }
    // scheme://host:port + path
    std::string url(const std::string& host, const std::string& path) const;

    std::vector<RecordedRequest> requests() const;
    // Stop (or resume) keeping what arrives; a long load run keeps nothing.
    void keepRecords(bool keep);
    // Serves `body` at `path` (plain GET); may be changed while running.
    void serveBytes(const std::string& path, const std::string& body, int status = 200);

private:
    void start(const std::string& address, const Setup& setup, int port);
    void addStandardEndpoints();
    RecordedRequest record(const httplib::Request& request);
    bool stallFor(int milliseconds);

    std::unique_ptr<httplib::Server> server_;
    bool tls_ = false;
    int port_ = 0;
    std::thread listener_;
    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    bool stopped_ = false;
    std::vector<RecordedRequest> requests_;
    bool keepRecords_ = true;
    std::map<std::string, std::pair<int, std::string>> served_;
};

// ---- Shorthands used by the tests ----

RecordedRequest lastRequest(const TestServer& server);
// Value of the first header with this name (case-insensitive), or "".
std::string headerOf(const RecordedRequest& request, const std::string& name);
// The deterministic body of /bytes/<n>: byte i is 'a' + i % 26.
std::string pattern(size_t length);
