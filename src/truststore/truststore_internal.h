// Pieces of the trust store shared between its translation units. Not part
// of the public headers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>

#include "webclient/ca_bundle.h"
#include "webclient/export.h"

// What the SIGALRM relay runs for each expiry: StartTimer binds it to
// TimerCb of the manager that armed the timer. Only the relay thread calls
// it, never signal context.
extern std::function<void(int)> timer_callback;

// The body of the trust-bundle download. After every append the byte that
// follows the collected bytes is 0.
struct DownloadBuffer {
    DownloadBuffer() : memory(static_cast<char*>(std::malloc(1))), size(0) {}
    ~DownloadBuffer() { std::free(memory); }
    DownloadBuffer(const DownloadBuffer&) = delete;
    DownloadBuffer& operator=(const DownloadBuffer&) = delete;

    char* memory;
    size_t size;
};

// libcurl write callback appending to a DownloadBuffer (`buffer`). Returns 0,
// which makes libcurl abort the transfer, when the buffer cannot grow.
size_t WriteMemoryCallback(void* contents, size_t size, size_t nmemb, void* buffer);

namespace truststore {

// The expiry timer's per-manager bookkeeping (ca_timer.cpp): creation in
// the constructor, deletion in the destructor. Deleting also stops the
// SIGALRM relay thread when `manager` armed it, and joins it.
void create_expiry_timer(CaBundleManager& manager);
void delete_expiry_timer(CaBundleManager& manager);

// Whether a refresh asked for on this thread must not start, because it would
// wait for a lock this thread holds (logged with the reason).
bool refreshRefusedOnThisThread();

// The host's CA handler as it is now. A copy, taken and replaced under a
// mutex of its own that is never held across a call of the handler: the
// handler may replace itself, and a host thread replacing it must not wait
// for a refresh whose handler waits for that thread.
CaHandler currentCaHandler(const CaBundleManager& manager);
void replaceCaHandler(CaBundleManager& manager, const CaHandler& handler);

}  // namespace truststore
