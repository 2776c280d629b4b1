// Re-roots the trust store's fixed paths for `webclient demo` so that the
// real files of a device are never touched: a private mount namespace with
// a fresh /tmp, /mnt, and copy-on-write overlays over /etc and /usr/lib.
// Must run before the process starts any thread.
#pragma once

#include <string>

struct DemoSandbox {
    bool trustStoreReady = false;  // the fixed paths are private to this process
    std::string skipReason;        // why not, when not
    std::string scratch;           // a scratch directory for the demo's files
};

DemoSandbox prepareDemoSandbox();

// Puts the signing root and the extraction script at the fixed paths and
// creates their directories. False (with `reason`) when that fails.
bool installTrustStoreFiles(const std::string& signingRootPem, std::string& reason);
