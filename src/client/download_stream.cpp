// Streamed downloads: the body goes straight into the caller's file, with
// per-image progress kept in the host's map and JSON progress reports sent
// through the host's sender.
#include <json-c/json.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "client/exchange.h"
#include "client/web_client_impl.h"
#include "engine/web_request_impl.h"
#include "util/lock_guard.h"
#include "util/log.h"
#include "util/sigpipe_shield.h"
#include "webclient/ca_bundle.h"

using std::placeholders::_1;

double total_percentage = 0.0;

void reset_download_percentage_data() { total_percentage = 0.0; }

namespace {

constexpr double kReportStep = 0.01;

struct JsonDeleter {
    void operator()(json_object* object) const { json_object_put(object); }
};
using JsonPtr = std::unique_ptr<json_object, JsonDeleter>;

// Adds `value` (owned from here on) to `object`; false when json-c had no
// memory to make the value or to add it.
bool addMember(json_object* object, const char* key, json_object* value) {
    if (value == nullptr) return false;
    if (json_object_object_add(object, key, value) == 0) return true;
    json_object_put(value);
    return false;
}

// {"token": "query_percentage", "data": {<key>: {"fail", "percentage", "inprogress"}}}
// A report json-c cannot make whole is not sent (a part would mislead):
// false then, true when it was sent or the host has no channel for it.
bool sendProgressReport(const std::string& key, const ImageDownload& entry, double percentage) {
    JsonPtr report(json_object_new_object()), data(json_object_new_object()), item(json_object_new_object());
    if (!report || !data || !item) return false;
    const bool made = addMember(item.get(), "fail", json_object_new_boolean(entry.fail ? 1 : 0)) &&
                      addMember(item.get(), "percentage", json_object_new_double(percentage)) &&
                      addMember(item.get(), "inprogress", json_object_new_int(entry.inprogress ? 1 : 0)) &&
                      addMember(data.get(), key.c_str(), item.release()) &&
                      addMember(report.get(), "token", json_object_new_string("query_percentage")) &&
                      addMember(report.get(), "data", data.release());
    const char* text = made ? json_object_to_json_string(report.get()) : nullptr;
    if (text == nullptr) return false;
    SalSendFunction sender = GetSalSend();
    if (sender) sender(text);
    return true;
}

// Counts the chunk against its image and reports when the job-wide share
// has grown by a step. Caller holds the host's progress lock.
void recordProgress(download_param& param, DataReceivedEventArgs& chunk, size_t written) {
    ImageDownload& entry = (*param.progress_map)[param.progress_key][param.image_name];
    if (entry.cancel) {
        WC_LOG_INFO("Cancel download, image: %s", param.image_name.c_str());
        chunk.cancel = true;
    }
    entry.image_name = param.image_name;
    entry.total = chunk.content_length;
    entry.downloaded += static_cast<double>(chunk.size);
    if (written < static_cast<size_t>(chunk.size)) {
        WC_LOG_ERROR("write file error, download for this image will be cancel, image: %s",
                     param.image_name.c_str());
        chunk.cancel = true;
    }
    // A divisor the host left at 0 (or one so small that the quotient
    // overflows) would make this and every later report Infinity, which is
    // not JSON; downloadStream has already said so in the log for 0.
    if (!(param.progress_divisor > 0.0)) return;
    const double percentage = entry.downloaded / entry.total / param.progress_divisor + total_percentage;
    if (!std::isfinite(percentage)) return;
    if (entry.downloaded == entry.total) total_percentage = percentage;
    if (percentage - entry.last_reported < kReportStep) return;
    const double previous = entry.last_reported;
    entry.last_reported = percentage;  // as the host's sender may read it
    // A report that could not be made is tried again with the next chunk.
    if (!sendProgressReport(param.progress_key, entry, percentage)) entry.last_reported = previous;
}

}  // namespace

ImageDownload::ImageDownload()
    : downloaded(0.0), total(0.0), last_reported(0.0), fail(false), inprogress(false), cancel(false) {}

ImageDownload::~ImageDownload() = default;

download_param::download_param()
    : progress_lock(nullptr), progress_map(nullptr), progress_divisor(0.0) {}

download_param::~download_param() = default;

void WebClient::impl::downloadStreamCallback(std::shared_ptr<FILE> file, download_param* param,
                                             std::shared_ptr<DataReceivedEventArgs> chunk) {
    const size_t size = static_cast<size_t>(chunk->size);
    size_t written = 0;
    {
        // The file may be a pipe whose reader has gone.
        webclient::SigpipeShield shield;
        written = fwrite(chunk->data, 1, size, file.get());
        // stdio holds back what does not fill a block: without the flush a
        // full disk would show only at the caller's fclose, after a reported
        // success.
        if (written == size && fflush(file.get()) != 0) written = 0;
    }
    const int writeError = errno;  // before the host's lock can change it
    // A file that lost data is no download, bookkeeping or not.
    if (written < size) chunk->cancel = true;
    bool recorded = false, failed = false;
    std::string failure;
    if (param->progress_lock != nullptr) {
        // A lock that cannot be taken (already held by this thread, or
        // broken for every thread) is reported by the guard; the chunk is
        // still counted without it.
        utilities::lock::lock_guard guard(param->progress_lock);
        if (param->progress_map != nullptr) {
            recorded = true;
            try {
                recordProgress(*param, *chunk, written);
            } catch (const WebException& error) {
                failed = true;
                failure = error.what();
            }
        }
    }
    // The bookkeeping names the image in its own line; without it the loss
    // must still show in the log. Logged after the host's lock is released:
    // the host's logger may be slow.
    if (written < size && !recorded) {
        WC_LOG_ERROR("write file error, download will be cancelled: %s", strerror(writeError));
    }
    if (failed) WC_LOG_DEBUG("downloadStreamCallback %s", failure.c_str());
}

namespace {

DataReceivedCallback bindStreamCallback(WebClient& client, std::shared_ptr<FILE> const& file,
                                        download_param* param) {
    return std::bind(&WebClient::impl::downloadStreamCallback, client.impl, file, param, _1);
}

// A missing record or file would crash the transfer thread at the first
// chunk; a zero divisor only spoils the reports (see recordProgress).
bool downloadArgumentsUsable(const download_param* param, const std::shared_ptr<FILE>& file) {
    if (param == nullptr || !file) {
        WC_LOG_ERROR("[downloadStream] invalid argument: %s", param == nullptr ? "no download_param" : "no file");
        return false;
    }
    const bool bookkeeping = param->progress_lock != nullptr && param->progress_map != nullptr;
    if (bookkeeping && !(param->progress_divisor > 0.0)) {
        WC_LOG_ERROR("[downloadStream] progress_divisor is not positive: no progress reports for %s",
                     param->image_name.c_str());
    }
    return true;
}

}  // namespace

std::string WebClient::downloadStream(download_param* param, std::shared_ptr<FILE> file,
                                      int* responseCode, bool useSsl) {
    if (!downloadArgumentsUsable(param, file)) return "invalid argument";
    std::string error;
    int attemptsLeft = useSsl ? 2 : 0;
    for (;;) {
        int status = 0;
        {
            DataReceivedCallback onData = bindStreamCallback(*this, file, param);
            WebRequest request(param->url, "GET", useSsl);
            if (param->headers.empty()) {
                request.downloadAsync(onData, kNoCompletion);
            } else {
                request.downloadAsync(param->user, param->password, param->headers, onData,
                                      kNoCompletion);
            }
            if (request.wait(downloadTimeoutMs) != 0) {
                WC_LOG_DEBUG("WebClient::downloadStream timeout");
                WC_LOG_DEBUG("[%s] exception %s", "downloadStream", "Operation timed out");
                detachUnfinished(request, "downloadStream");
            }
            if (responseCode != nullptr) *responseCode = static_cast<int>(request.getResponseCode());
            status = CheckStatus(request);
            if (status != 0) error = failureText(request);
        }
        if (!refreshAfterTrustFailure(status, useSsl, attemptsLeft)) return error;
    }
}

void WebClient::downloadStream(download_param* param, std::shared_ptr<FILE> file,
                               std::string& responseHeaders, bool useSsl) {
    if (!downloadArgumentsUsable(param, file)) return;
    std::string body;  // unused: the stream callback writes to the file
    Exchange exchange{"downloadStream", "GET", downloadTimeoutMs, &body, &responseHeaders, nullptr,
                      nullptr,
                      [&](WebRequest& r, DataReceivedCallback const&, DataReceivedCallback const& onHeader) {
                          r.downloadAsync(param->user, param->password, param->headers,
                                          bindStreamCallback(*this, file, param), onHeader,
                                          kNoCompletion);
                      }};
    runExchange(*this, param->url, useSsl, exchange);
}
