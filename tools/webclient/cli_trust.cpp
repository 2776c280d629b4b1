// `webclient trust status|refresh`.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include <openssl/bio.h>
#include <openssl/err.h>
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

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct InfoStackFree {
    void operator()(STACK_OF(X509_INFO) * infos) const { sk_X509_INFO_pop_free(infos, X509_INFO_free); }
};

// A regular file, opened without waiting (a FIFO put in its place must not
// hang the program), as a BIO that owns it; null otherwise.
std::unique_ptr<BIO, BioFree> openRegularFile(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info;
    FILE* file = (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) ? ::fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        ::close(fd);
        return nullptr;
    }
    std::unique_ptr<BIO, BioFree> bio(BIO_new_fp(file, BIO_CLOSE));
    if (!bio) std::fclose(file);
    return bio;
}

// Whether the library's TLS set-up can load the file: read as it reads a CA
// file, every block must parse and one must be a certificate. Anything else
// (empty, garbage, cut short, a directory) protects nothing newer, and the
// shipped bundle should replace it.
bool loadsAsCaFile(const char* path) {
    const std::unique_ptr<BIO, BioFree> bio = openRegularFile(path);
    if (!bio) return false;
    const std::unique_ptr<STACK_OF(X509_INFO), InfoStackFree> infos(
        PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
    if (!infos) return false;
    for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
        if (sk_X509_INFO_value(infos.get(), i)->x509 != nullptr) return true;
    }
    return false;
}

}  // namespace

// The host keeps the device's CA file current. Unadopted, this process
// would start as if none had ever been installed, and its first refresh
// whose download failed (this program's download URL is fixed) would
// extract the shipped bundle over the host's newer one.
bool adoptDeviceCaFile() {
    const char* path = truststore_paths::kCaBundlePem;
    if (!isFileExist(path)) return false;
    if (!loadsAsCaFile(path)) {
        ERR_clear_error();  // the parse's errors are not a later transfer's
        std::fprintf(stderr, "webclient: the device's CA file %s cannot be loaded; not adopted\n", path);
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
