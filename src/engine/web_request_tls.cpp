// TLS for secure requests: peer and host verification with a fixed cipher
// list, trusted CAs chosen per platform by an SSL_CTX hook, and an extra
// check that the server certificate allows TLS server authentication.
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "engine/verbose_log.h"
#include "engine/web_request_impl.h"
#include "util/callback_barrier.h"
#include "util/log.h"
#include "util/thread_holds.h"
#include "webclient/ca_bundle.h"
#include "webclient/host.h"

namespace {

constexpr const char* kSwitchPlatform = "linux-kv210-kv410_armhf";
constexpr const char* kSwitchCaDirectory = "/etc/ssl/certs";
constexpr const char* kServerAuthOid = "1.3.6.1.5.5.7.3.1";
constexpr const char* kCipherList =
    "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES128-GCM-SHA256:DHE-RSA-AES128-GCM-SHA256:"
    "DHE-DSS-AES128-GCM-SHA256:kEDH+AESGCM:ECDHE-RSA-AES128-SHA256:ECDHE-ECDSA-AES128-SHA256:"
    "DHE-RSA-AES128-SHA256:DHE-DSS-AES128-SHA256:DHE-RSA-AES256-SHA256:AES128-GCM-SHA256";
constexpr CURLcode kAbortConnection = CURLE_ABORTED_BY_CALLBACK;

struct EkuDeleter {
    void operator()(EXTENDED_KEY_USAGE* eku) const { EXTENDED_KEY_USAGE_free(eku); }
};
using EkuPtr = std::unique_ptr<EXTENDED_KEY_USAGE, EkuDeleter>;

bool onSwitch() {
    return kpu_utilities::system_info::GetPlatformInfo().find(kSwitchPlatform) != std::string::npos;
}

// Joined without normalisation, as the host lays its data directory out.
std::string rootCertificatePath() {
    return std::string(GetAppDataDir()) + "/" + "./certs" + "/rootCA.pem";
}

bool loadCaFile(SSL_CTX* context, const std::string& path) {
    if (SSL_CTX_load_verify_locations(context, path.c_str(), nullptr) == 1) return true;
    WC_LOG_ERROR("sslctx_function failed to load %s", path.c_str());
    return false;
}

bool listsServerAuth(const EXTENDED_KEY_USAGE* eku) {
    for (int i = 0; i < sk_ASN1_OBJECT_num(eku); ++i) {
        char oid[100] = {};
        OBJ_obj2txt(oid, sizeof oid, sk_ASN1_OBJECT_value(eku, i), 1);
        if (std::strcmp(oid, kServerAuthOid) == 0) return true;
    }
    return false;
}

// A file's time may be as coarse as this (FAT keeps even seconds; older
// ext4 inodes whole ones): the file can be newer than its time says.
constexpr double kFileTimeGrainSeconds = 2.0;

// A kept connection was verified against the CA file as it was when the
// connection was made, and libcurl reuses it without a new handshake: after
// a refresh dropped its issuer, a device polled more often than the idle
// limit would never be checked again. Connections older than the CA file
// are therefore not reused: the limit is the file's age less the grain of
// its time, less one second for libcurl's whole-second ages; while that
// leaves no limit, no connection is reused at all. (Measured against the
// wall clock, as the file's time is: a clock stepped forward after a change
// widens the limit.) Without a file to date, no connection is reused.
void refuseConnectionsOlderThan(CURL* handle, const std::string& caFile) {
    struct stat info;
    timespec now;
    if (caFile.empty() || stat(caFile.c_str(), &info) != 0 || clock_gettime(CLOCK_REALTIME, &now) != 0) {
        (void)curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
        return;
    }
    const double age = static_cast<double>(now.tv_sec - info.st_mtim.tv_sec) +
                       static_cast<double>(now.tv_nsec - info.st_mtim.tv_nsec) / 1e9;
    const double newestPossibleAge = age - kFileTimeGrainSeconds;
    const long limit = newestPossibleAge < 1.0 ? 0 : static_cast<long>(std::floor(newestPossibleAge)) - 1;
    if (limit < 1) {
        (void)curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
    } else {
        (void)curl_easy_setopt(handle, CURLOPT_MAXLIFETIME_CONN, limit);
    }
}

// Options rows in order; stops at the first failure and returns its code.
CURLcode applySecureOptions(WebRequest& request, const std::string& certDir) {
    CURL* handle = request.impl->curl_handle;
    CURLcode code = CURLE_OK;
    if ((code = curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L)) != CURLE_OK) return code;
    // Verbose lines carry request headers, credentials among them: they go
    // to the host logger with secrets masked, never raw to standard error.
    (void)curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &logVerboseLine);
    if ((code = curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr)) != CURLE_OK) return code;
    if ((code = curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr)) != CURLE_OK) return code;
    if ((code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L)) != CURLE_OK) return code;
    if ((code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L)) != CURLE_OK) return code;
    if ((code = curl_easy_setopt(handle, CURLOPT_SSL_CIPHER_LIST, kCipherList)) != CURLE_OK) return code;
    code = curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &WebRequest::sslctx_function);
    if (code == CURLE_NOT_BUILT_IN) return curl_easy_setopt(handle, CURLOPT_CAPATH, certDir.c_str());
    if (code != CURLE_OK) return code;
    code = curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &request);
    // libcurl would otherwise keep the first connection's CA store for a day
    // and share it between connections; every new connection must load the
    // CA file as it is now (it may have been replaced by a refresh).
    if (code != CURLE_OK) return code;
    (void)curl_easy_setopt(handle, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    refuseConnectionsOlderThan(handle, request.ca_file);
    // A resumed TLS session is not verified again: one cached on a reused
    // easy handle (libcurl 8.1 and later) would carry a verdict made under
    // an earlier CA file onto a new connection.
    (void)curl_easy_setopt(handle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    return code;
}

}  // namespace

void WebRequest::setupSecureRequest() {
    const unsigned long earlierSslError = ERR_peek_last_error();
    CaBundleManager* trustStore = CaBundleProvider::GetInstance();
    const std::string certDir = trustStore->cert_dir;
    // One hold per request, however many verbs it runs: the destructor gives
    // back one, and a second GetCaFile could wait for a refresh that waits
    // for this thread's own first hold.
    if (!impl->holds_ca_file) {
        // Counted, since a hold that cannot be had (the thread replacing the
        // file) leaves nothing for the destructor to give back.
        const int& holds = webclient::thisThreadHolds().ca_file_holds;
        const int before = holds;
        ca_file = trustStore->GetCaFile();
        impl->holds_ca_file = holds > before;
    }
    if (certDir.empty()) handleError();
    const CURLcode code = applySecureOptions(*this, certDir);
    if (code == CURLE_OK) return;
    WC_LOG_INFO("curl_easy_setopt error: %d\n", static_cast<int>(code));
    if (earlierSslError != 0) {
        char text[256] = {};
        ERR_error_string_n(earlierSslError, text, sizeof text);
        WC_LOG_INFO("errbuf %s\n", text);
    }
    failSetup(*this, code);
}

CURLcode WebRequest::sslctx_function(CURL* /*curl*/, void* sslctx, void* request) {
    auto* context = static_cast<SSL_CTX*>(sslctx);
    auto* owner = static_cast<WebRequest*>(request);
    return webclient::resultOrOnException("sslctx_function", kAbortConnection, [&]() -> CURLcode {
        if (onSwitch()) {
            if (SSL_CTX_load_verify_locations(context, nullptr, kSwitchCaDirectory) == 1) {
                WC_LOG_DEBUG("sslctx_function load %s success", kSwitchCaDirectory);
            } else {
                WC_LOG_ERROR("sslctx_function failed to load %s", kSwitchCaDirectory);
            }
        } else {
            const std::string rootCertificate = rootCertificatePath();
            if (isFileExist(rootCertificate.c_str()) && !loadCaFile(context, rootCertificate)) {
                return kAbortConnection;
            }
            if (owner != nullptr && !owner->ca_file.empty() && !loadCaFile(context, owner->ca_file)) {
                return kAbortConnection;
            }
        }
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &WebRequest::verify_callback);
        return CURLE_OK;
    });
}

int WebRequest::verify_callback(int preverify_ok, x509_store_ctx_st* ctx) {
    const int depth = X509_STORE_CTX_get_error_depth(ctx);
    const int error = X509_STORE_CTX_get_error(ctx);
    WC_LOG_DEBUG("ok=%d depth=%d ctx->error=%d:%s error=0x%lx\n", preverify_ok, depth, error,
                 X509_verify_cert_error_string(error), ERR_peek_error());
    if (preverify_ok == 0 || depth != 0) return preverify_ok;
    X509* certificate = X509_STORE_CTX_get_current_cert(ctx);
    if (certificate == nullptr) {
        WC_LOG_ERROR("can't get terminal Cert");
        X509_STORE_CTX_set_error(ctx, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    if (X509_get_ext_by_NID(certificate, NID_ext_key_usage, -1) < 0) return 1;
    // A present but undecodable extension is treated like one without the
    // server-authentication purpose.
    EkuPtr usages(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(certificate, NID_ext_key_usage, nullptr, nullptr)));
    if (usages && listsServerAuth(usages.get())) return 1;
    WC_LOG_ERROR("ExtendedKeyUsage is NOT OK");
    X509_STORE_CTX_set_error(ctx, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
}
