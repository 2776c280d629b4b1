// Puts the process-wide trust store into a known state for one test: the
// re-rooted fixed paths (test build) are laid out afresh with the project's
// extraction script and the test bundle-signing root, the download URL
// points at a loopback server, and status, CA file, fallback flag and
// handler are reset. The destructor resets the store again and removes the
// re-rooted tree.
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

    static CaBundleManager& store() { return *CaBundleProvider::GetInstance(); }
    // bundle_status, read under status_mutex.
    static int status();
    // A signed bundle (DER CMS) holding the given PEM files, signed by the
    // test PKI's `signer` (or another signer base name).
    static std::string makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer = "signer");
    // What the loopback server answers at the download URL (which points
    // there again after failDownloads).
    void serveBundle(const std::string& bytes, int status = 200);
    // Points the download URL at a port that refuses connections.
    void failDownloads();
    // Bundle requests that reached the loopback server.
    int downloadsSeen() const;
    const TestServer& server() const { return bundleServer_; }
    static void installShippedBundle(const std::string& bytes);
    // Replaces the extraction script with a shell script of this body.
    static void installScript(const std::string& body);

private:
    TestServer bundleServer_;
    std::string bundleUrl_;
    int closedPortSocket_ = -1;
};

// Writes `bytes` to `path`, creating the parent directories.
void writeFileCreatingDirs(const std::string& path, const std::string& bytes);
