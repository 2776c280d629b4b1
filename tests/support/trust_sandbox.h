// Puts the process-wide trust store into a known state for one test: the
// re-rooted fixed paths (test build) hold the project's extraction script
// and the test bundle-signing root, the download URL points at a loopback
// server, and status, CA file, fallback flag and handler are reset. The
// destructor resets the store again and removes the re-rooted tree.
#pragma once

#include <string>
#include <vector>

#include "support/server_util.h"
#include "webclient/ca_bundle.h"

class TrustStoreSandbox {
public:
    TrustStoreSandbox();
    ~TrustStoreSandbox();
    TrustStoreSandbox(const TrustStoreSandbox&) = delete;
    TrustStoreSandbox& operator=(const TrustStoreSandbox&) = delete;

    CaBundleManager& store() { return *CaBundleProvider::GetInstance(); }
    // A signed bundle (DER CMS) holding the given PEM files, signed by the
    // test PKI's `signer` (or another signer base name).
    std::string makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer = "signer");
    // What the loopback server answers at the download URL.
    void serveBundle(const std::string& bytes, int status = 200);
    void installShippedBundle(const std::string& bytes);
    int status();

private:
    void resetStore();
    TestServer bundleServer_;
};

// Writes `bytes` to `path`, creating the parent directories.
void writeFileCreatingDirs(const std::string& path, const std::string& bytes);
