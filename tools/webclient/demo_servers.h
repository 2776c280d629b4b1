// The loopback servers of `webclient demo`: plain HTTP on 127.0.0.1 (echo,
// upload, a large file, the trust bundle) and HTTPS on other addresses.
#pragma once

#include <httplib.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>

// The body of /file: `size` bytes, byte i = 'a' + i % 26.
std::string demoFileBytes(size_t size);

class DemoServer {
public:
    // Plain HTTP with the demo endpoints.
    DemoServer();
    // HTTPS answering "hello over TLS" on `address`.
    DemoServer(const std::string& certificateFile, const std::string& keyFile, const std::string& address);
    ~DemoServer();
    DemoServer(const DemoServer&) = delete;
    DemoServer& operator=(const DemoServer&) = delete;

    std::string url(const std::string& host, const std::string& path) const;
    // What /bundle answers from now on.
    void setBundle(const std::string& bytes);

    static constexpr size_t kFileSize = 8 * 1024 * 1024;

private:
    void listenOn(const std::string& address);
    void addEndpoints();

    std::unique_ptr<httplib::Server> server_;
    bool tls_ = false;
    int port_ = 0;
    std::thread listener_;
    std::mutex bundleMutex_;
    std::string bundle_;
};
