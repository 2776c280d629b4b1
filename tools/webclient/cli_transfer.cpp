#include "cli_transfer.h"

#include <cstdio>
#include <memory>

#include "cli_progress.h"
#include "webclient/webclient.h"

namespace {

struct Outcome {
    std::string body;
    std::string headers;
    std::string error;
    int status = 0;
};

void runVerb(const CliOptions& o, Outcome& out) {
    WebClient client;
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

void runDownload(const CliOptions& o, Outcome& out) {
    FILE* stream = std::fopen(o.outputFile.c_str(), "w+");
    if (stream == nullptr) {
        out.error = "cannot open " + o.outputFile + " for writing";
        return;
    }
    std::shared_ptr<FILE> file(stream, std::fclose);
    DownloadProgress progress(o.outputFile);
    download_param param;
    param.url = o.url;
    param.user = o.user;
    param.password = o.password;
    param.headers = o.headers;
    progress.attach(param);
    WebClient client;
    out.error = client.downloadStream(&param, file, &out.status, o.useSsl);
    std::fflush(stream);
    progress.finish(o.outputFile);
}

int exitStatusOf(const Outcome& out, bool useSsl) {
    if (out.status == 0) return kExitTransferFailed;
    // With --ssl the error text may be left from a first attempt that the
    // retry after a CA-bundle refresh made good.
    if (!out.error.empty() && !useSsl) return kExitTransferFailed;
    return out.status >= 400 ? kExitHttpError : kExitOk;
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
    std::fwrite(out.body.data(), 1, out.body.size(), stdout);
    std::fflush(stdout);
    if (options.showHeaders) std::fprintf(stderr, "%s", out.headers.c_str());
    if (out.status != 0) std::fprintf(stderr, "HTTP %d\n", out.status);
    if (!out.error.empty()) std::fprintf(stderr, "error: %s\n", out.error.c_str());
    if (out.status == 0 && out.error.empty()) std::fprintf(stderr, "error: no answer\n");
    return exitStatusOf(out, options.useSsl);
}
