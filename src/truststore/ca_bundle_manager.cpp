// CaBundleManager's life cycle, the CA file's read hold, the process-wide
// instance and the host's entry points.
#include <pthread.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "truststore/trust_locks.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"
#include "util/log.h"
#include "util/thread_holds.h"
#include "webclient/ca_bundle.h"
#include "webclient/host.h"

namespace {

using truststore::current_thread_id;

void takeReadHold(pthread_rwlock_t& lock) {
    // A failed read lock would be "released" later by PutCaFile; all that
    // can be done is to say where it happened.
    if (pthread_rwlock_rdlock(&lock) != 0) print_back_trace();
    ++webclient::thisThreadHolds().ca_file_holds;
    std::fprintf(stderr, "LOCK_RD gettid(): %d\n", current_thread_id());
}

void releaseReadHold(pthread_rwlock_t& lock) {
    --webclient::thisThreadHolds().ca_file_holds;
    (void)pthread_rwlock_unlock(&lock);  // the caller's own hold
    std::fprintf(stderr, "UNLOCK gettid(): %d\n", current_thread_id());
}

bool fileExists(const std::string& path) {
    struct stat info;
    return !path.empty() && ::stat(path.c_str(), &info) == 0;
}

}  // namespace

CaBundleManager::CaBundleManager()
    : cert_dir(truststore_paths::kCertDir),
      ca_file(),
      download_url(truststore_paths::kDownloadUrl),
      use_default_bundle(true),
      status_mutex(),
      file_lock(),
      ca_handler(),
      bundle_status(0),
      timer_id() {
    WC_LOG_DEBUG(" CaBundleManager");
    pthread_rwlock_init(&file_lock, nullptr);
    pthread_mutex_init(&status_mutex, nullptr);
    truststore::create_expiry_timer(*this);
}

CaBundleManager::~CaBundleManager() {
    WC_LOG_DEBUG(" ~CaBundleManager");
    StopTimer();
    // Joins the relay thread first: it may be inside TimerCb on status_mutex.
    truststore::delete_expiry_timer(*this);
    pthread_rwlock_destroy(&file_lock);
    pthread_mutex_destroy(&status_mutex);
}

void CaBundleManager::UpdateCaFile() {
    WC_LOG_INFO("[UpdateCaFile] ready to update CA bundle");
    DownloadTask();
}

std::string CaBundleManager::GetCaFile() {
    takeReadHold(file_lock);
    if (fileExists(ca_file)) {
        WC_LOG_DEBUG(" Got CaFile");
        return ca_file;
    }
    // The refresh takes file_lock for writing: our own hold must go first.
    const std::string missing = ca_file;
    releaseReadHold(file_lock);
    WC_LOG_INFO(" Do not get CaFile at: %s", missing.c_str());
    DownloadTask();
    takeReadHold(file_lock);
    return ca_file;
}

void CaBundleManager::PutCaFile() {
    WC_LOG_DEBUG("PutCaFile");
    releaseReadHold(file_lock);
}

CaBundleManager* CaBundleProvider::GetInstance() {
    static CaBundleProvider caBundleProvider;
    return &caBundleProvider.manager;
}

void registerCAhandler(CaHandler const& handler) { CaBundleProvider::GetInstance()->ca_handler = handler; }

void refreshCaBundle() { CaBundleProvider::GetInstance()->UpdateCaFile(); }

void refreshCaBundleOnFailure() {
    CaBundleManager* manager = CaBundleProvider::GetInstance();
    {
        truststore::Lock lock(manager->status_mutex);
        WC_LOG_DEBUG("[UpdateCaFileOnFailure] current status: %d", manager->bundle_status);
        if (manager->bundle_status == 2) return;
    }
    WC_LOG_INFO("[UpdateCaFileOnFailure] Begin DownloadTask");
    manager->DownloadTask();
}
