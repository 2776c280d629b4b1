// `webclient trust status|refresh`.
#include <pthread.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include "cli_commands.h"
#include "truststore/truststore_paths.h"
#include "webclient/ca_bundle.h"
#include "webclient/host.h"

namespace {

const char* statusName(int status) {
    switch (status) {
    case 0: return "idle (no current result)";
    case 1: return "refreshing";
    case 2: return "ready";
    case 3: return "failed";
    default: return "unknown";
    }
}

// The status is read under the trust store's status mutex, as every reader does.
int currentStatus(CaBundleManager& store) {
    pthread_mutex_lock(&store.status_mutex);
    const int status = store.bundle_status;
    pthread_mutex_unlock(&store.status_mutex);
    return status;
}

// The status and the CA file in use belong to this process's trust store
// (a refresh run here sets them); the file on disk is the device's.
void printStatus(CaBundleManager& store) {
    const int status = currentStatus(store);
    std::printf("status (here):           %d %s\n", status, statusName(status));
    std::printf("CA file (here):          %s\n", store.ca_file.empty() ? "(none yet)" : store.ca_file.c_str());
    std::printf("CA file on disk:         %s %s\n", truststore_paths::kCaBundlePem,
                isFileExist(truststore_paths::kCaBundlePem) ? "(present)" : "(absent)");
    std::printf("certificate dir:         %s\n", store.cert_dir.c_str());
    std::printf("bundle source:           %s\n", store.download_url.c_str());
    std::printf("shipped fallback (here): %s\n", store.use_default_bundle ? "allowed" : "no longer used");
}

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};

// Whether OpenSSL can take a certificate from the file. Anything else (empty,
// garbage, a directory) protects nothing newer, and the shipped bundle
// should replace it.
bool holdsACertificate(const char* path) {
    struct stat info;
    if (::stat(path, &info) != 0 || !S_ISREG(info.st_mode)) return false;
    const std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "re"));
    if (!file) return false;
    const std::unique_ptr<X509, CertificateFree> first(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
    return first != nullptr;
}

}  // namespace

// The host keeps the device's CA file current. Unadopted, this process
// would start as if none had ever been installed, and its first refresh
// whose download failed (this program's download URL is fixed) would
// extract the shipped bundle over the host's newer one.
bool adoptDeviceCaFile() {
    const char* path = truststore_paths::kCaBundlePem;
    if (!isFileExist(path)) return false;
    if (!holdsACertificate(path)) {
        std::fprintf(stderr, "webclient: the device's CA file %s holds no certificate; not adopted\n", path);
        return false;
    }
    CaBundleManager& store = *CaBundleProvider::GetInstance();
    pthread_rwlock_wrlock(&store.file_lock);
    store.ca_file = path;
    pthread_mutex_lock(&store.status_mutex);
    store.use_default_bundle = false;
    pthread_mutex_unlock(&store.status_mutex);
    pthread_rwlock_unlock(&store.file_lock);
    return true;
}

int runTrustCommand(const CliOptions& options, bool adopted) {
    CaBundleManager& store = *CaBundleProvider::GetInstance();
    if (options.url == "refresh") {
        std::printf("refreshing the CA bundle...\n");
        refreshCaBundle();
    }
    printStatus(store);
    if (options.url != "refresh") return kExitOk;
    if (currentStatus(store) == 2) return kExitOk;
    if (adopted) std::printf("the refresh failed; the device's CA file was kept\n");
    return kExitTransferFailed;
}
