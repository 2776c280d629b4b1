// Arbitrary HTTP responses: a loopback server answers every request with
// the fuzzer's bytes and closes, while the blocking verbs (transfer thread
// and caller's thread) and a streamed download consume them. Whatever the
// bytes, each call returns, and the credential never reaches a log line.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "webclient/host.h"
#include "webclient/webRequestcontroller.h"
#include "webclient/web_client.h"

namespace {

const char kSecret[] = "S3ntinel-Password";

class AnsweringServer {
public:
    AnsweringServer() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener_, 64) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            std::abort();
        }
        port_ = ntohs(address.sin_port);
        std::thread([this] { serve(); }).detach();
    }

    void answerWith(std::string bytes) {
        std::lock_guard<std::mutex> guard(mutex_);
        answer_ = std::move(bytes);
    }
    std::string url(const char* host, const char* path) const {
        return std::string("http://") + host + ":" + std::to_string(port_) + path;
    }

private:
    void serve() {
        for (;;) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) continue;
            readRequestHead(connection);
            std::string answer;
            {
                std::lock_guard<std::mutex> guard(mutex_);
                answer = answer_;
            }
            (void)!send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
            shutdown(connection, SHUT_WR);
            close(connection);
        }
    }
    static void readRequestHead(int fd) {
        timeval limit{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::string head;
        char chunk[4096];
        while (head.find("\r\n\r\n") == std::string::npos) {
            const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
            if (got <= 0) return;
            head.append(chunk, static_cast<size_t>(got));
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::mutex mutex_;
    std::string answer_;
};

AnsweringServer* server = nullptr;

void stopBackend() { WebRequestManager::getInstance()->stopBackEnd(); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetWebClientLogSink([](int, int, const std::string& text) {
        if (text.find(kSecret) != std::string::npos) std::abort();
    });
    SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    WebRequestManager::getInstance()->initBackEnd();
    std::atexit(stopBackend);
    server = new AnsweringServer();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    server->answerWith(std::string(reinterpret_cast<const char*>(data), size));
    WebClient client;
    client.requestTimeoutMs = client.downloadTimeoutMs = 5000;
    for (const char* host : {"127.0.0.1", "localhost"}) {
        std::vector<std::string> headers{"Accept: */*"};
        std::string responseHeaders, response, error;
        int code = 0;
        client.get(server->url(host, "/fuzz"), "admin", kSecret, "session=1", headers, responseHeaders, response,
                   error, &code, false);
    }
    download_param param;
    param.url = server->url("127.0.0.1", "/image");
    std::shared_ptr<FILE> sink(std::fopen("/dev/null", "w"), std::fclose);
    int code = 0;
    (void)client.downloadStream(&param, sink, &code, false);
    return 0;
}
