#include "cli_transfer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli_output_file.h"
#include "cli_progress.h"
#include "util/ascii_case.h"
#include "webclient/webclient.h"

namespace {

struct Outcome {
    std::string body;
    std::string headers;
    std::string error;
    int status = 0;
    bool outputLost = false;  // standard output did not take the body
};

void runVerb(const CliOptions& o, Outcome& out) {
    WebClient client;
    // A wait that runs out returns what arrived so far without an error;
    // waiting past libcurl's own limit makes a slow transfer fail instead.
    client.requestTimeoutMs = client.uploadTimeoutMs;
    std::vector<std::string> headers = o.headers;
    std::map<std::string, std::string> fields = o.formFields;
    const std::string& url = o.url;
    if (o.verb == "get") {
        client.get(url, o.user, o.password, o.cookie, headers, out.headers, out.body, out.error,
                   &out.status, o.useSsl);
        return;
    }
    if (o.verb == "post") {
        client.post(url, o.user, o.password, o.data, headers, out.headers, out.body, out.error, o.useSsl);
    } else if (o.verb == "put") {
        client.put(url, o.user, o.password, o.data, headers, out.headers, out.body, out.error, o.useSsl);
    } else if (o.verb == "patch") {
        client.patch(url, o.user, o.password, o.data, headers, out.headers, out.body, out.error, o.useSsl);
    } else if (o.verb == "delete") {
        client.deleteM(url, o.user, o.password, headers, out.headers, out.body, out.error, o.useSsl);
    } else if (o.verb == "upload") {
        client.uploadByPost(url, o.user, o.password, headers, fields, o.fileField, o.filePath,
                            out.headers, out.body, out.error, o.useSsl);
    }
    out.status = lastStatusInHeaders(out.headers);
}

// libcurl's texts for an unverified peer (60) or an unreadable CA file (77):
// the only failures after which a verb made with --ssl tries again.
bool isTrustFailureText(const std::string& error) {
    for (const char* start : {"SSL certificate problem", "SSL: no alternative certificate subject name",
                              "SSL: certificate subject name", "SSL: unable to obtain common name",
                              "SSL: couldn't get peer certificate", "SSL peer certificate", "error setting certificate",
                              "Problem with the SSL CA cert"}) {
        if (error.rfind(start, 0) == 0) return true;
    }
    return false;
}

// libcurl follows every 3xx that has a Location to its end, so a last
// answer that still sends the client on is a hop whose next one failed
// (http to an https peer that never verified). A download keeps no header
// text: any 3xx counts then.
bool redirectCutShort(const Outcome& out) {
    if (out.status < 300 || out.status >= 400) return false;
    if (out.headers.empty()) return true;
    size_t lastBlock = out.headers.rfind("\nHTTP/");
    lastBlock = lastBlock == std::string::npos ? 0 : lastBlock;
    const std::string block = webclient::asciiLowerCase(out.headers.substr(lastBlock));
    return block.find("\nlocation:") != std::string::npos;
}

// A verb keeps the error text of a failed attempt. With --ssl a trust
// failure is retried after a CA-bundle refresh, so such a text next to an
// HTTP status is the first attempt's, made good by the second; any other
// text is the last attempt's own failure.
bool madeGoodByRetry(const Outcome& out, bool useSsl) {
    return useSsl && out.status != 0 && !redirectCutShort(out) && isTrustFailureText(out.error);
}

int exitStatusOf(const Outcome& out, bool useSsl) {
    if (out.status == 0 || out.outputLost) return kExitTransferFailed;
    if (!out.error.empty() && !madeGoodByRetry(out, useSsl)) return kExitTransferFailed;
    return out.status >= 400 ? kExitHttpError : kExitOk;
}

void runDownload(const CliOptions& o, Outcome& out) {
    removeTemporaryDownloadOnSignals();
    OutputFile output(o.outputFile);
    std::FILE* stream = output.open(out.error);
    if (stream == nullptr) return;
    std::shared_ptr<FILE> file(stream, std::fclose);
    DownloadProgress progress(o.outputFile);
    download_param param;
    param.url = o.url;
    param.user = o.user;
    param.password = o.password;
    param.headers = o.headers;
    // This verb sends credentials only along with header lines; libcurl's
    // own Accept line is this very text, so nothing else changes on the wire.
    if (param.headers.empty() && !o.user.empty() && !o.password.empty()) param.headers.push_back("Accept: */*");
    progress.attach(param);
    WebClient client;
    out.error = client.downloadStream(&param, file, &out.status, o.useSsl);
    const bool kept = exitStatusOf(out, o.useSsl) == kExitOk && output.commit(stream, out.error);
    progress.finish(output.writtenPath(), kept);
}

}  // namespace

int lastStatusInHeaders(const std::string& headers) {
    int status = 0;
    size_t lineStart = 0;
    while (lineStart < headers.size()) {
        size_t lineEnd = headers.find('\n', lineStart);
        if (lineEnd == std::string::npos) lineEnd = headers.size();
        if (headers.compare(lineStart, 5, "HTTP/") == 0) {
            const size_t space = headers.find(' ', lineStart);
            if (space != std::string::npos && space < lineEnd) status = std::atoi(headers.c_str() + space + 1);
        }
        lineStart = lineEnd + 1;
    }
    return status;
}

int runTransferCommand(const CliOptions& options) {
    Outcome out;
    if (options.verb == "download") {
        runDownload(options, out);
    } else {
        runVerb(options, out);
    }
    // Output that did not arrive (a full disk, a closed pipe: SIGPIPE is
    // ignored) is a failed transfer for whoever reads it.
    const bool written = std::fwrite(out.body.data(), 1, out.body.size(), stdout) == out.body.size();
    out.outputLost = std::fflush(stdout) != 0 || !written;
    if (out.outputLost) std::fprintf(stderr, "error: writing the body to standard output: %s\n", std::strerror(errno));
    if (options.showHeaders) std::fprintf(stderr, "%s", out.headers.c_str());
    if (out.status != 0) std::fprintf(stderr, "HTTP %d\n", out.status);
    if (madeGoodByRetry(out, options.useSsl)) {
        std::fprintf(stderr, "first attempt: %s (retried after a CA bundle refresh)\n", out.error.c_str());
    } else if (!out.error.empty()) {
        std::fprintf(stderr, "error: %s\n", out.error.c_str());
    }
    if (out.status == 0 && out.error.empty()) std::fprintf(stderr, "error: no answer\n");
    return exitStatusOf(out, options.useSsl);
}
