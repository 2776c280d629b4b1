// Arbitrary HTTP responses: a loopback server answers every request with
// the fuzzer's bytes and closes, while the blocking verbs (transfer thread
// and caller's thread) and a streamed download consume them. Whatever the
// bytes, each call returns, and the credential never reaches a log line.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/raw_server.h"
#include "webclient/host.h"
#include "webclient/webRequestcontroller.h"
#include "webclient/web_client.h"

namespace {

const char kSecret[] = "S3ntinel-Password";

std::mutex answerMutex;
std::string answer;  // guarded by answerMutex
RawServer* server = nullptr;

void stopBackend() { WebRequestManager::getInstance()->stopBackEnd(); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetWebClientLogSink([](int, int, const std::string& text) {
        if (text.find(kSecret) != std::string::npos) std::abort();
    });
    SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    WebRequestManager::getInstance()->initBackEnd();
    std::atexit(stopBackend);
    server = new RawServer([](int fd) {
        RawServer::readRequestHead(fd);
        std::string bytes;
        {
            std::lock_guard<std::mutex> guard(answerMutex);
            bytes = answer;
        }
        RawServer::sendAll(fd, bytes);
        shutdown(fd, SHUT_WR);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::lock_guard<std::mutex> guard(answerMutex);
        answer.assign(reinterpret_cast<const char*>(data), size);
    }
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
