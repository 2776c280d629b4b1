// A loopback TCP server that answers every connection with a test-given
// script (raw bytes, resets, early closes), for fault injection. One
// connection at a time; port 0; stopped by the destructor.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

class RawServer {
public:
    // Runs `serve` with each accepted connection's descriptor (closed after),
    // on the accepting thread.
    using Script = std::function<void(int fd)>;
    explicit RawServer(Script serve, const std::string& address = "127.0.0.1");
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    std::string url(const std::string& host, const std::string& path, const char* scheme = "http") const;

    // Script helpers.
    static std::string readRequestHead(int fd);  // up to the blank line
    static void sendAll(int fd, const std::string& bytes);
    static void resetConnection(int fd);          // RST instead of FIN

private:
    void acceptLoop();

    Script serve_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
};
