#include "demo_servers.h"

#include <chrono>
#include <stdexcept>

std::string demoFileBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

DemoServer::DemoServer() : server_(new httplib::Server()) {
    addEndpoints();
    listenOn("127.0.0.1");
}

DemoServer::DemoServer(const std::string& certificateFile, const std::string& keyFile, const std::string& address)
    : server_(new httplib::SSLServer(certificateFile.c_str(), keyFile.c_str())), tls_(true) {
    server_->Get("/hello", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("hello over TLS", "text/plain");
    });
    listenOn(address);
}

DemoServer::~DemoServer() {
    server_->stop();
    if (listener_.joinable()) listener_.join();
}

// A server that cannot bind (or whose certificate did not load) would never
// report running: that is an error, not a wait.
void DemoServer::listenOn(const std::string& address) {
    server_->set_keep_alive_timeout(1);
    port_ = server_->is_valid() ? server_->bind_to_any_port(address.c_str()) : -1;
    if (port_ < 0) throw std::runtime_error("cannot start a demo server on " + address);
    listener_ = std::thread([this] { server_->listen_after_bind(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_->is_running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            server_->stop();
            listener_.join();
            throw std::runtime_error("demo server on " + address + " did not start");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string DemoServer::url(const std::string& host, const std::string& path) const {
    return std::string(tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + path;
}

void DemoServer::setBundle(const std::string& bytes) {
    std::lock_guard<std::mutex> guard(bundleMutex_);
    bundle_ = bytes;
}

void DemoServer::addEndpoints() {
    auto echo = [](const httplib::Request& req, httplib::Response& res) {
        res.set_content("method=" + req.method + "\nauthorization=" + req.get_header_value("Authorization") +
                            "\ncookie=" + req.get_header_value("Cookie") + "\nx-demo=" +
                            req.get_header_value("X-Demo") + "\nbody=" + req.body + "\n",
                        "text/plain");
    };
    server_->Get("/echo", echo);
    server_->Post("/echo", echo);
    server_->Put("/echo", echo);
    server_->Patch("/echo", echo);
    server_->Delete("/echo", echo);
    server_->Post("/upload", [](const httplib::Request& req, httplib::Response& res) {
        std::string parts;
        for (const auto& file : req.files) parts += file.first + "=" + std::to_string(file.second.content.size()) + " ";
        res.set_content("parts: " + parts, "text/plain");
    });
    server_->Get("/file", [](const httplib::Request&, httplib::Response& res) {
        auto body = std::make_shared<std::string>(demoFileBytes(kFileSize));
        res.set_content_provider(body->size(), "application/octet-stream",
                                 [body](size_t offset, size_t length, httplib::DataSink& sink) {
                                     sink.write(body->data() + offset, std::min<size_t>(length, 65536));
                                     return true;
                                 });
    });
    server_->Get("/bundle", [this](const httplib::Request&, httplib::Response& res) {
        std::lock_guard<std::mutex> guard(bundleMutex_);
        res.set_content(bundle_, "application/pkcs7-mime");
    });
}
