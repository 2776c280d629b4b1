// DownloadTask: one complete refresh of the CA bundle, run on the caller's
// thread: download (or the shipped copy), extraction, hand-over.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "engine/close_on_exec_socket.h"
#include "engine/handle_renewal.h"
#include "truststore/trust_locks.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"
#include "truststore/unique_fd.h"
#include "util/callback_barrier.h"
#include "util/log.h"
#include "util/sigpipe_shield.h"
#include "util/standard_descriptors.h"
#include "util/thread_holds.h"
#include "webclient/ca_bundle.h"
#include "webclient/host.h"

namespace {

using truststore::Lock;
using truststore::LockWrite;

constexpr int kStatusRefreshing = 1;
constexpr int kStatusReady = 2;
constexpr int kStatusFailed = 3;
constexpr long kDownloadTimeoutSeconds = 60;

// libcurl's global state is reference-counted; the transfer engine may hold
// its own reference meanwhile.
class CurlGlobal {
public:
    CurlGlobal() : ok_(curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK) {}
    ~CurlGlobal() {
        if (ok_) curl_global_cleanup();
    }
    CurlGlobal(const CurlGlobal&) = delete;
    CurlGlobal& operator=(const CurlGlobal&) = delete;

private:
    bool ok_;
};

struct EasyCleanup {
    void operator()(CURL* handle) const noexcept { webclient::cleanupEasyHandle(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

CURLcode configureDownload(CURL* handle, const std::string& url, DownloadBuffer& buffer) {
    CURLcode code = curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, WriteMemoryCallback);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_WRITEDATA, &buffer);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_USERAGENT, "libcurl-agent/1.0");
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_TIMEOUT, kDownloadTimeoutSeconds);
    // A resolver built without threads would time out through SIGALRM,
    // which belongs to the expiry timer.
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (code == CURLE_OK) code = webclient::useCloseOnExecSockets(handle);
    return code;
}

// Any completed transfer counts, whatever its HTTP status: the script
// judges the content.
bool downloadToBuffer(const std::string& url, DownloadBuffer& buffer) {
    CurlGlobal global;
    EasyHandle handle(curl_easy_init());
    CURLcode code = handle ? configureDownload(handle.get(), url, buffer) : CURLE_FAILED_INIT;
    if (code == CURLE_OK) code = curl_easy_perform(handle.get());
    if (code != CURLE_OK) {
        webclient::printToStderr("curl_easy_perform() failed. code: %d message: %s\n", static_cast<int>(code),
                     curl_easy_strerror(code));
        return false;
    }
    long responseCode = 0;
    const CURLcode info = curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &responseCode);
    WC_LOG_ERROR("[%d]http response_code: %ld error message: %s\n", static_cast<int>(info), responseCode,
                 curl_easy_strerror(info));
    WC_LOG_ERROR("%lu bytes retrieved\n", static_cast<unsigned long>(buffer.size));
    return true;
}

bool writeBundleFile(const char* path, const DownloadBuffer& buffer) {
    webclient::occupyFreeStandardDescriptors();  // the lock traces must not land in the bundle
    truststore::UniqueFd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file.valid()) {
        WC_LOG_ERROR("file open error. errno: %d\n", errno);
        return false;
    }
    for (size_t written = 0; written < buffer.size;) {
        const ssize_t count = ::write(file.get(), buffer.memory + written, buffer.size - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            WC_LOG_ERROR("file write error. errno: %d\n", errno);
            return false;
        }
        written += static_cast<size_t>(count);
    }
    return true;
}

bool copyShippedBundle() {
    WC_LOG_INFO("Failed to download p7b, use default one");
    const std::string command =
        std::string("cp ") + truststore_paths::kShippedBundle + " " + truststore_paths::kDownloadedBundle;
    return std::system(command.c_str()) == 0;
}

// Marks the refresh as running; false when another one already is.
bool claimRefresh(CaBundleManager& manager) {
    Lock lock(manager.status_mutex);
    WC_LOG_INFO("[DownloadTask] current status: %d", manager.bundle_status);
    if (manager.bundle_status == kStatusRefreshing) return false;
    manager.bundle_status = kStatusRefreshing;
    return true;
}

bool shippedBundleAllowed(CaBundleManager& manager) {
    Lock lock(manager.status_mutex);
    return manager.use_default_bundle;
}

// Caller holds file_lock for writing and status_mutex. The download file is
// written (or the shipped copy put there) only under that hold: a second
// refresh, started when the expiry reset the status during this one, would
// otherwise replace the file between this refresh's write and its script's
// read, and the fallback is judged as the last hand-over left it, not as
// it stood when the download began.
bool stageBundle(const CaBundleManager& manager, const DownloadBuffer* downloaded) {
    if (downloaded != nullptr && writeBundleFile(truststore_paths::kDownloadedBundle, *downloaded)) return true;
    return manager.use_default_bundle && copyShippedBundle();
}

void setStatus(CaBundleManager& manager, int status) {
    Lock lock(manager.status_mutex);
    manager.bundle_status = status;
}

// Caller holds file_lock for writing and status_mutex.
void handOver(CaBundleManager& manager) {
    // A copy: the handler may replace itself (registerCAhandler) while it runs.
    const CaHandler handler = truststore::currentCaHandler(manager);
    if (!handler) {
        manager.use_default_bundle = false;
        WC_LOG_INFO("no handler to upload CAs");
        return;
    }
    WC_LOG_INFO("Begin to upload CAs");
    if (handler(truststore_paths::kCaBundlePem) == 0) {
        manager.use_default_bundle = false;
        return;
    }
    manager.bundle_status = kStatusFailed;
    WC_LOG_ERROR(" failed to install CA to switch");
}

// The refresh's write lock waits for every secure request to be destroyed:
// it would wait for ever for this thread's own read hold (a secure request
// it keeps alive), and inside a transfer callback, whose thread holds the
// multi lock that a secure request's destructor needs. The thread that is
// replacing the file (its CA handler calling back) holds status_mutex too.
const char* reasonNotToRefresh() {
    const webclient::ThreadHolds& holds = webclient::thisThreadHolds();
    if (holds.ca_file_writes > 0) return "called while this thread replaces the CA file";
    if (holds.ca_file_holds > 0) return "this thread still holds the CA file";
    if (webclient::insideTransferCallback()) return "called inside a transfer callback";
    return nullptr;
}

void extractAndHandOver(CaBundleManager& manager, const DownloadBuffer* downloaded) {
    // A thread that keeps a request alive holds that request's handle mutex,
    // and a secure request of another thread, holding the CA file, may be
    // waiting for exactly that mutex: such a refresh waits only so long.
    const bool readersMayWaitForThisThread = webclient::thisThreadHolds().handle_locks > 0;
    LockWrite fileHold(&manager.file_lock, readersMayWaitForThisThread ? truststore_paths::kCaFileWaitMs : -1);
    if (readersMayWaitForThisThread && !fileHold.owns()) {
        WC_LOG_ERROR(" failed to extract CA: the CA file stayed in use for %ld ms",
                     truststore_paths::kCaFileWaitMs);
        setStatus(manager, kStatusFailed);
        return;
    }
    // The host's handler runs under this hold; what it asks of the trust
    // store in breach of its contract is refused rather than deadlocked.
    webclient::CountedHold writing(webclient::thisThreadHolds().ca_file_writes);
    Lock statusHold(manager.status_mutex);
    if (!stageBundle(manager, downloaded)) {
        WC_LOG_ERROR(" failed to download CA ");
        manager.bundle_status = kStatusFailed;
        return;
    }
    if (manager.ExtractCa(truststore_paths::kDownloadedBundle, truststore_paths::kCaBundlePem) != 0) {
        WC_LOG_ERROR(" failed to extract CA");
        manager.bundle_status = kStatusFailed;
        return;
    }
    manager.ca_file = truststore_paths::kCaBundlePem;
    manager.bundle_status = kStatusReady;
    handOver(manager);
}

}  // namespace

size_t WriteMemoryCallback(void* contents, size_t size, size_t nmemb, void* buffer) {
    const size_t length = size * nmemb;
    auto* body = static_cast<DownloadBuffer*>(buffer);
    auto* grown = static_cast<char*>(std::realloc(body->memory, body->size + length + 1));
    if (grown == nullptr) {
        WC_LOG_ERROR("[%s]not enough memory (realloc returned NULL)", "WriteMemoryCallback");
        return 0;
    }
    body->memory = grown;
    (void)memcpy_s_helper(grown + body->size, length + 1, contents, length);  // room is length + 1
    body->size += length;
    grown[body->size] = 0;
    return length;
}

bool truststore::refreshRefusedOnThisThread() {
    const char* reason = reasonNotToRefresh();
    if (reason != nullptr) WC_LOG_ERROR("[DownloadTask] %s; no refresh", reason);
    return reason != nullptr;
}

void CaBundleManager::DownloadTask() {
    if (truststore::refreshRefusedOnThisThread()) return;
    if (!claimRefresh(*this)) return;
    // Nothing may be thrown to callers, and a refresh must not stay
    // "running" for good: an exception (the host's CA handler, an
    // allocation) fails the refresh instead.
    const bool ended = webclient::resultOrOnException("DownloadTask", false, [&] {
        WC_LOG_INFO("[DownloadTask] Begin to download CA File");
        DownloadBuffer buffer;
        const bool received = downloadToBuffer(download_url, buffer);
        // Without a fallback there is nothing to extract: no need to wait
        // for the CA file's users.
        if (!received && !shippedBundleAllowed(*this)) {
            WC_LOG_ERROR(" failed to download CA ");
            setStatus(*this, kStatusFailed);
            return true;
        }
        extractAndHandOver(*this, received ? &buffer : nullptr);
        return true;
    });
    if (!ended) setStatus(*this, kStatusFailed);
}
