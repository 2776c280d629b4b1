// Commands of the `webclient` program other than plain transfers.
#pragma once

#include "cli_options.h"
#include "webclient/flat_api.h"

// The transfer backend for the life of a command, stopped on every way out
// (a thread still running at exit would outlive the library's state).
class BackendRun {
public:
    explicit BackendRun(bool start) : started_(start) {
        if (started_) initCurlBackEnd();
    }
    ~BackendRun() {
        if (started_) stopCurlBackEnd();
    }
    BackendRun(const BackendRun&) = delete;
    BackendRun& operator=(const BackendRun&) = delete;

private:
    bool started_;
};

// Makes the device's CA file, when there is one the TLS set-up can load,
// this process's own, with the shipped bundle no longer a fallback: a
// refresh whose download fails then leaves the file alone. Whether it did.
bool adoptDeviceCaFile();
int runTrustCommand(const CliOptions& options, bool adopted);
int runDemo(const CliOptions& options);
