// Trust-store maintenance: the CA bundle that secure requests verify
// against, refreshed on demand from a signed PKCS#7 trust bundle.
//
// Every refresh runs synchronously on the thread that asks for it. Lock
// order: file_lock (write) before status_mutex; nothing takes file_lock
// while holding status_mutex. A thread must not ask for a refresh while it
// holds a read hold from GetCaFile (destroy its secure requests first).
#pragma once

#include <pthread.h>
#include <time.h>

#include <functional>
#include <string>

#include "webclient/export.h"

using CaHandler = std::function<int(const char*)>;

class WEBCLIENT_API CaBundleManager {
public:
    CaBundleManager();
    ~CaBundleManager();
    CaBundleManager(const CaBundleManager&) = delete;
    CaBundleManager& operator=(const CaBundleManager&) = delete;

    // Arms the one-shot 600 s expiry timer (delivered as SIGALRM); re-arms
    // when called again. Never called by the library itself.
    void StartTimer();
    void StopTimer();
    // Expiry: bundle_status becomes 0. Never runs in signal context.
    void TimerCb(int signal);
    // One complete refresh; the outcome is bundle_status. Takes file_lock
    // for writing, then status_mutex, while it extracts and hands over.
    void DownloadTask();
    // Runs the extraction script; the child's wait status, or -1.
    int ExtractCa(std::string const& bundle, std::string const& output);
    void UpdateCaFile();
    // The CA file path, with a read hold on file_lock left to the caller,
    // who gives it back with PutCaFile, once. A PutCaFile while no hold is
    // out is refused with an error line (it would leave the lock unusable);
    // one too many while another caller holds the file gives back that
    // caller's hold early. May run a refresh first.
    std::string GetCaFile();
    void PutCaFile();

    std::string cert_dir;
    std::string ca_file;
    std::string download_url;
    bool use_default_bundle;
    pthread_mutex_t status_mutex;
    pthread_rwlock_t file_lock;
    CaHandler ca_handler;
    int bundle_status;  // 0 idle/expired, 1 refreshing, 2 ready, 3 failed
    timer_t timer_id;
};

class WEBCLIENT_API CaBundleProvider {
public:
    // The process-wide manager (a function-local static, destroyed at exit).
    static CaBundleManager* GetInstance();

    CaBundleManager manager;
};

// The handler receives the PEM path and returns 0 when the CAs were
// installed. It runs with the trust store's locks held: it must not call
// back into the trust store (registering its own successor is allowed).
WEBCLIENT_API void registerCAhandler(CaHandler const& handler);
WEBCLIENT_API void refreshCaBundle();
// Refreshes unless the bundle is ready (status 2).
WEBCLIENT_API void refreshCaBundleOnFailure();
// The SIGALRM handler installed by StartTimer.
WEBCLIENT_API void wrapper(int signal);
