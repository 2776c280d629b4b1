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
    bool scratchIsPrivate = false; // on the namespace's own /tmp, gone with the process
    std::string extractionScript;  // read before /tmp is covered: a build may live there
};

DemoSandbox prepareDemoSandbox();

// Puts the signing root and the extraction script at the fixed paths and
// creates their directories. False (with `reason`) when that fails.
bool installTrustStoreFiles(const DemoSandbox& sandbox, const std::string& signingRootPem, std::string& reason);

// Removes the scratch directory unless it goes with the process anyway.
void removeDemoScratch(const DemoSandbox& sandbox);
