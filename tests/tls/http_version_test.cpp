// Servers that offer HTTP/2 are spoken to in HTTP/1.1 on every path, so the
// response header text keeps one form. The server is `openssl s_server
// -www`, which offers h2 but answers only HTTP/1: a client that took the
// offer would wait for an answer that never comes.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/pki.h"
#include "support/test_helpers.h"
#include "webclient/easy_web_client.h"
#include "webclient/web_request.h"

extern char** environ;

namespace {

// A free loopback port (bound once, released for the server to take).
int freePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return connected;
}

class Http2OfferingServer {
public:
    Http2OfferingServer() : port_(freePort()) {
        const std::string accept = "127.0.0.1:" + std::to_string(port_);
        const std::string certificate = TestPki::instance().file("server.pem");
        const std::string key = TestPki::instance().file("server.key");
        const char* argv[] = {"openssl", "s_server", "-quiet", "-www", "-alpn", "h2,http/1.1", "-accept",
                              accept.c_str(), "-cert", certificate.c_str(), "-key", key.c_str(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&pid_, "openssl", &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = 0;
        posix_spawn_file_actions_destroy(&actions);
        for (int i = 0; pid_ != 0 && i < 100 && !ready_; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ready_ = accepts(port_);
        }
    }
    ~Http2OfferingServer() {
        if (pid_ == 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    std::string url(const std::string& host) const { return "https://" + host + ":" + std::to_string(port_) + "/"; }
    bool ready() const { return ready_; }

private:
    int port_;
    pid_t pid_ = 0;
    bool ready_ = false;
};

}  // namespace

TEST(HttpVersion, ServersOfferingHttp2AreSpokenToInHttp11) {
    Http2OfferingServer server;
    ASSERT_TRUE(server.ready()) << "openssl s_server did not start listening";
    std::vector<std::string> none;
    // 127.0.0.1 runs on the transfer thread, localhost on the caller's.
    for (const char* host : {"127.0.0.1", "localhost"}) {
        Collected body, headers;
        WebRequest request(server.url(host), "GET", false);
        request.getAsync("", "", none, body.callback(), headers.callback(), {});
        ASSERT_EQ(request.wait(5000), 0) << host;
        EXPECT_EQ(headers.text.rfind("HTTP/1.0 200", 0), 0u) << host << ": " << headers.text;
    }
    EasyWebClient client;
    client.total_timeout = 5;
    std::string responseHeaders, response;
    EXPECT_EQ(client.get(server.url("localhost"), "", "", "", none, responseHeaders, response), 200);
    EXPECT_EQ(responseHeaders.rfind("HTTP/1.0 200", 0), 0u) << responseHeaders;
}
