// Example: starts a loopback HTTP server in this process and talks to it
// through libwebclient's flat functions, on both dispatch paths (a numeric
// address runs on the library's transfer thread, "localhost" on the
// caller's thread).
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "webclient/webclient.h"

namespace {

void serveEcho(httplib::Server& server) {
    server.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("hello from the loopback server\n", "text/plain");
    });
    server.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content("you sent: " + req.body + "\n", "text/plain");
    });
    server.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("not here\n", "text/plain");
    });
}

bool show(const char* what, char* body) {
    std::printf("%-44s %s", what, body != nullptr ? body : "(null)\n");
    bool ok = body != nullptr;
    std::free(body);
    return ok;
}

}  // namespace

int main() {
    httplib::Server server;
    serveEcho(server);
    const int port = server.bind_to_any_port("127.0.0.1");
    std::thread listener([&] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

    std::printf("starting the transfer backend (takes about 6 s)...\n");
    initCurlBackEnd();
    const std::string numeric = "http://127.0.0.1:" + std::to_string(port);
    const std::string named = "http://localhost:" + std::to_string(port);
    const char* headers[] = {"X-Example: 1", nullptr};

    bool ok = true;
    ok &= show("GET  (transfer thread, 127.0.0.1):",
               webClientGet((numeric + "/hello").c_str(), nullptr, nullptr, headers, false));
    ok &= show("GET  (caller's thread, localhost):",
               webClientGet((named + "/hello").c_str(), nullptr, nullptr, headers, false));
    ok &= show("POST (transfer thread):",
               webClientPost((numeric + "/echo").c_str(), "user", "secret", "ping", headers, false));
    int status = 0;
    char* body = webClientGet_ex2((numeric + "/missing").c_str(), nullptr, nullptr, nullptr, nullptr,
                                  &status, false);
    std::printf("GET  404 page: status %d, body %s", status, body != nullptr ? body : "(null)\n");
    ok &= (status == 404);
    std::free(body);

    stopCurlBackEnd();
    server.stop();
    listener.join();
    std::printf(ok ? "example finished: all requests answered\n" : "example FAILED\n");
    return ok ? 0 : 1;
}
