// CaBundleManager's life cycle, the CA file's read hold, the process-wide
// instance and the host's entry points.
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "truststore/trust_locks.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"
#include "util/log.h"
#include "util/sigpipe_shield.h"
#include "util/thread_holds.h"
#include "webclient/ca_bundle.h"
#include "webclient/host.h"

namespace {

using truststore::current_thread_id;

// Read holds given out and not yet given back, over all threads (the
// process has one trust store). A PutCaFile while there is none would
// unlock a lock nobody holds, which leaves it unusable: every later
// refresh would wait for ever for its write lock.
std::atomic<long>& outstandingReadHolds() {
    static std::atomic<long> count{0};
    return count;
}

// False, with nothing to give back, when the hold cannot be had. The
// thread replacing the file (its CA handler calling back) must not even try:
// its read lock fails, and a later "release" would free its write lock.
bool takeReadHold(pthread_rwlock_t& lock) {
    if (webclient::thisThreadHolds().ca_file_writes > 0) {
        WC_LOG_ERROR(" cannot hold the CA file: this thread is replacing it");
        return false;
    }
    const int error = pthread_rwlock_rdlock(&lock);
    if (error != 0) {
        WC_LOG_ERROR(" cannot hold the CA file: %s", std::strerror(error));
        print_back_trace();
        return false;
    }
    ++outstandingReadHolds();
    ++webclient::thisThreadHolds().ca_file_holds;
    webclient::printToStderr("LOCK_RD gettid(): %d\n", current_thread_id());
    return true;
}

void releaseReadHold(pthread_rwlock_t& lock) {
    long held = outstandingReadHolds().load();
    do {
        if (held <= 0) {
            WC_LOG_ERROR("PutCaFile without a hold from GetCaFile; nothing released");
            return;
        }
    } while (!outstandingReadHolds().compare_exchange_weak(held, held - 1));
    --webclient::thisThreadHolds().ca_file_holds;
    (void)pthread_rwlock_unlock(&lock);  // the caller's own hold
    webclient::printToStderr("UNLOCK gettid(): %d\n", current_thread_id());
}

// Nothing may be thrown to GetCaFile's callers; a path that cannot be
// copied reads as empty.
std::string copyOrEmpty(const std::string& path) noexcept {
    try {
        return path;
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

// The path as read under a hold, which stays taken whatever happens (the
// caller gives it back with PutCaFile): one that cannot be copied reads as
// no CA file.
std::string copyHeldPath(const std::string& path) noexcept {
    std::string copy = copyOrEmpty(path);
    if (copy.empty() && !path.empty()) WC_LOG_ERROR(" no memory for the CA file's path; answered as none");
    return copy;
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
    if (!takeReadHold(file_lock)) return std::string();
    if (fileExists(ca_file)) {
        WC_LOG_DEBUG(" Got CaFile");
        return copyHeldPath(ca_file);
    }
    // The refresh takes file_lock for writing: our own hold must go first.
    const std::string missing = copyOrEmpty(ca_file);
    releaseReadHold(file_lock);
    WC_LOG_INFO(" Do not get CaFile at: %s", missing.c_str());
    DownloadTask();
    if (!takeReadHold(file_lock)) return std::string();
    return copyHeldPath(ca_file);
}

void CaBundleManager::PutCaFile() {
    WC_LOG_DEBUG("PutCaFile");
    // This thread's hold would be its refresh's write lock, not a read hold.
    if (webclient::thisThreadHolds().ca_file_writes > 0) {
        WC_LOG_ERROR("PutCaFile called while this thread replaces the CA file; nothing released");
        return;
    }
    releaseReadHold(file_lock);
}

CaBundleManager* CaBundleProvider::GetInstance() {
    static CaBundleProvider caBundleProvider;
    return &caBundleProvider.manager;
}

namespace truststore {

namespace {

std::mutex& handlerMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

CaHandler currentCaHandler(const CaBundleManager& manager) {
    std::lock_guard<std::mutex> guard(handlerMutex());
    return manager.ca_handler;
}

void replaceCaHandler(CaBundleManager& manager, const CaHandler& handler) {
    std::lock_guard<std::mutex> guard(handlerMutex());
    manager.ca_handler = handler;
}

}  // namespace truststore

void registerCAhandler(CaHandler const& handler) {
    truststore::replaceCaHandler(*CaBundleProvider::GetInstance(), handler);
}

void refreshCaBundle() { CaBundleProvider::GetInstance()->UpdateCaFile(); }

void refreshCaBundleOnFailure() {
    CaBundleManager* manager = CaBundleProvider::GetInstance();
    // The CA handler's thread holds status_mutex: refused before taking it.
    // (Other refusals are DownloadTask's, after the status check.)
    if (webclient::thisThreadHolds().ca_file_writes > 0 && truststore::refreshRefusedOnThisThread()) return;
    {
        truststore::Lock lock(manager->status_mutex);
        WC_LOG_DEBUG("[UpdateCaFileOnFailure] current status: %d", manager->bundle_status);
        if (manager->bundle_status == 2) return;
    }
    WC_LOG_INFO("[UpdateCaFileOnFailure] Begin DownloadTask");
    manager->DownloadTask();
}
