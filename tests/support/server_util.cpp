#include "support/server_util.h"

#include <strings.h>

#include <chrono>
#include <sstream>
#include <stdexcept>

namespace {

int intParam(const httplib::Request& request, const char* name, int fallback) {
    return request.has_param(name) ? std::stoi(request.get_param_value(name)) : fallback;
}

// Describes what arrived, for tests that only look at the body.
std::string describe(const RecordedRequest& seen) {
    std::ostringstream text;
    text << seen.method << " " << seen.path << "\n";
    for (const auto& header : seen.headers) text << header.first << ": " << header.second << "\n";
    text << "\n" << seen.body;
    for (const auto& part : seen.parts) text << "\npart " << part.name << "=" << part.content;
    return text.str();
}

}  // namespace

std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

TestServer::TestServer(const std::string& address, const Setup& setup)
    : server_(new httplib::Server()) {
    start(address, setup, 0);
}

TestServer::TestServer(const TlsFiles& tls, const std::string& address, const Setup& setup, int port)
    : server_(new httplib::SSLServer(tls.certificate.c_str(), tls.key.c_str())), tls_(true) {
    start(address, setup, port);
}

void TestServer::start(const std::string& address, const Setup& setup, int port) {
    addStandardEndpoints();
    // Shutdown waits for idle keep-alive connections to time out.
    server_->set_keep_alive_timeout(1);
    // Small answers would otherwise wait for the client's delayed ACK.
    server_->set_tcp_nodelay(true);
    if (setup) setup(*server_);
    if (port == 0) {
        port_ = server_->bind_to_any_port(address.c_str());
    } else if (server_->bind_to_port(address.c_str(), port)) {
        port_ = port;
    } else {
        throw std::runtime_error("cannot bind " + address + ":" + std::to_string(port));
    }
    listener_ = std::thread([this] { server_->listen_after_bind(); });
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TestServer::~TestServer() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopped_ = true;
    }
    stopping_.notify_all();
    server_->stop();
    listener_.join();
}

std::string TestServer::url(const std::string& host, const std::string& path) const {
    return std::string(tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + path;
}

std::vector<RecordedRequest> TestServer::requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
}

void TestServer::serveBytes(const std::string& path, const std::string& body, int status) {
    std::lock_guard<std::mutex> guard(mutex_);
    served_[path] = {status, body};
}

void TestServer::keepRecords(bool keep) {
    std::lock_guard<std::mutex> guard(mutex_);
    keepRecords_ = keep;
    if (!keep) requests_.clear();
}

RecordedRequest TestServer::record(const httplib::Request& request) {
    RecordedRequest seen{request.method, request.path, {}, request.body, {}, request.remote_port};
    for (const auto& header : request.headers) seen.headers.insert(header);
    for (const auto& file : request.files) seen.parts.push_back(file.second);
    std::lock_guard<std::mutex> guard(mutex_);
    if (keepRecords_) requests_.push_back(seen);
    return seen;
}

bool TestServer::stallFor(int milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !stopping_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopped_; });
}

void TestServer::addStandardEndpoints() {
    using Request = const httplib::Request&;
    using Response = httplib::Response&;
    auto echo = [this](Request req, Response res) { res.set_content(describe(record(req)), "text/plain"); };
    auto empty = [this](Request req, Response) { record(req); };
    server_->Get("/echo", echo).Post("/echo", echo).Put("/echo", echo).Patch("/echo", echo).Delete("/echo", echo);
    server_->Get("/empty", empty).Post("/empty", empty);
    auto status = [this](Request req, Response res) {
        record(req);
        res.status = std::stoi(req.matches[1]);
        res.set_content("status " + std::string(req.matches[1]), "text/plain");
    };
    server_->Get(R"(/status/(\d+))", status).Put(R"(/status/(\d+))", status);
    // To "to", with the status "code" (302 when not given); "upper" spells
    // the header's name in capitals.
    auto redirect = [this](Request req, Response res) {
        record(req);
        const std::string code = req.get_param_value("code");
        res.set_redirect(req.get_param_value("to"), code.empty() ? 302 : std::stoi(code));
        if (req.has_param("upper")) res.headers = {{"LOCATION", req.get_param_value("to")}};
        if (req.has_param("blank_too")) res.headers.emplace("Location", "");  // a second, empty one
    };
    server_->Get("/redirect", redirect).Put("/redirect", redirect).Patch("/redirect", redirect);
    server_->Delete("/redirect", redirect);
    server_->Get(R"(/bytes/(\d+))", [this](Request req, Response res) {
        record(req);
        res.set_content(pattern(std::stoul(req.matches[1])), "application/octet-stream");
    });
    // The same bytes without a Content-Length.
    server_->Get(R"(/bytes-chunked/(\d+))", [this](Request req, Response res) {
        record(req);
        auto body = std::make_shared<std::string>(pattern(std::stoul(req.matches[1])));
        res.set_chunked_content_provider("application/octet-stream", [body](size_t offset, httplib::DataSink& sink) {
            const size_t n = std::min<size_t>(16384, body->size() - offset);
            if (n == 0) sink.done();
            return n == 0 || sink.write(body->data() + offset, n);
        });
    });
    // `chunk` bytes at a time, `delay_ms` apart.
    server_->Get(R"(/slow/(\d+))", [this](Request req, Response res) {
        record(req);
        const size_t chunk = static_cast<size_t>(intParam(req, "chunk", 16384));
        const int delay = intParam(req, "delay_ms", 10);
        auto body = std::make_shared<std::string>(pattern(std::stoul(req.matches[1])));
        res.set_content_provider(body->size(), "application/octet-stream",
                                 [this, body, chunk, delay](size_t offset, size_t, httplib::DataSink& sink) {
                                     if (offset > 0 && !stallFor(delay)) return false;
                                     return sink.write(body->data() + offset, std::min(chunk, body->size() - offset));
                                 });
    });
    server_->Get("/stall", [this](Request req, Response res) {
        record(req);
        stallFor(intParam(req, "ms", 1000));
        res.set_content("stalled", "text/plain");
    });
    server_->Get(R"(/served/(.*))", [this](Request req, Response res) {
        record(req);
        std::lock_guard<std::mutex> guard(mutex_);
        auto found = served_.find(req.path);
        res.status = found == served_.end() ? 404 : found->second.first;
        if (found != served_.end()) res.set_content(found->second.second, "application/octet-stream");
    });
}

RecordedRequest lastRequest(const TestServer& server) {
    std::vector<RecordedRequest> all = server.requests();
    return all.empty() ? RecordedRequest() : all.back();
}

std::string headerOf(const RecordedRequest& request, const std::string& name) {
    for (const auto& header : request.headers) {
        if (strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
    }
    return std::string();
}
