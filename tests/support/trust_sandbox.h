// Puts the process-wide trust store into a known state for one test: the
// re-rooted fixed paths (test build) laid out afresh with the project's
// extraction script and the test bundle-signing root, downloads from a
// loopback server, no CA file or handler, and the shipped-bundle fallback
// allowed. The destructor resets the store and removes the re-rooted tree.
#pragma once

#include <string>
#include <vector>

#include "support/server_util.h"
#include "webclient/ca_bundle.h"

class TrustStoreSandbox {
public:
    TrustStoreSandbox();
    ~TrustStoreSandbox();

    static CaBundleManager& store() { return *CaBundleProvider::GetInstance(); }
    static int status();  // bundle_status, read under status_mutex
    static bool caFileHeld();  // whether file_lock has a read hold
    // A bundle of these PEM files signed by a test signer, made by the
    // project's tools/make_trust_bundle.sh.
    static std::string makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer = "signer");
    // What the download URL answers (it points here again after failDownloads).
    void serveBundle(const std::string& bytes, int status = 200);
    static void failDownloads() { store().download_url = "http://127.0.0.1:0/"; }  // port 0: refused
    int downloadsSeen() const { return static_cast<int>(server_.requests().size()); }
    // Replaces the extraction script with a new file (the old one may still run).
    static void installScript(const std::string& text);

private:
    TestServer server_;
};

// Writes `bytes` to `path`, creating the parent directories.
void writeFileCreatingDirs(const std::string& path, const std::string& bytes);
