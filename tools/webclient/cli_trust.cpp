// `webclient trust status|refresh`.
#include <pthread.h>

#include <cstdio>

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

}  // namespace

// The host keeps the device's CA file current. Unadopted, this process
// would start as if none had ever been installed, and its first refresh
// whose download failed (this program's download URL is fixed) would
// extract the shipped bundle over the host's newer one.
void adoptDeviceCaFile() {
    if (!isFileExist(truststore_paths::kCaBundlePem)) return;
    CaBundleManager& store = *CaBundleProvider::GetInstance();
    pthread_rwlock_wrlock(&store.file_lock);
    store.ca_file = truststore_paths::kCaBundlePem;
    pthread_mutex_lock(&store.status_mutex);
    store.use_default_bundle = false;
    pthread_mutex_unlock(&store.status_mutex);
    pthread_rwlock_unlock(&store.file_lock);
}

int runTrustCommand(const CliOptions& options) {
    CaBundleManager& store = *CaBundleProvider::GetInstance();
    if (options.url == "refresh") {
        std::printf("refreshing the CA bundle...\n");
        refreshCaBundle();
    }
    printStatus(store);
    if (options.url == "refresh") return currentStatus(store) == 2 ? kExitOk : kExitTransferFailed;
    return kExitOk;
}
