#include "support/raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

RawServer::RawServer(Script serve, const std::string& address) : serve_(std::move(serve)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in where{};
    where.sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &where.sin_addr);
    bind(listener_, reinterpret_cast<sockaddr*>(&where), sizeof where);
    listen(listener_, 16);
    socklen_t length = sizeof where;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&where), &length);
    port_ = ntohs(where.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

RawServer::~RawServer() {
    stopping_ = true;
    acceptor_.join();
    close(listener_);
}

void RawServer::acceptLoop() {
    while (!stopping_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (poll(&waiting, 1, 50) <= 0) continue;
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        serve_(fd);  // one connection at a time: the clients here are sequential
        close(fd);
    }
}

std::string RawServer::url(const std::string& host, const std::string& path, const char* scheme) const {
    return std::string(scheme) + "://" + host + ":" + std::to_string(port_) + path;
}

std::string RawServer::readRequestHead(int fd) {
    std::string head;
    char byte;
    while (head.find("\r\n\r\n") == std::string::npos && read(fd, &byte, 1) == 1) head += byte;
    return head;
}

void RawServer::sendAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
}

void RawServer::resetConnection(int fd) {
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}
