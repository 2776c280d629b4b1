// Common ground of the trust-store tests: the re-rooted tree of fixed paths
// laid out afresh for every test, the process-wide manager reset to its
// initial state, signed bundles made once with tools/make_trust_bundle.sh,
// and a loopback server that hands out whichever bundle a test chooses.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "webclient/ca_bundle.h"

class TrustStoreTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    static CaBundleManager& store() { return *CaBundleProvider::GetInstance(); }
    // bundle_status, read under status_mutex.
    static int status();
    // Waits (polling, bounded) until `done` holds.
    static bool eventually(const std::function<bool()>& done,
                           std::chrono::milliseconds limit = std::chrono::seconds(20));

    // The signed bundles: "good" (signer under signing_root, content the
    // test root CA), "foreign" (foreign_signer), "tampered" (good with one
    // byte of its content changed).
    static std::string bundle(const std::string& which);
    static std::string caPem();  // the content of a good bundle

    // Serves `body` as the trust bundle; points download_url at it.
    void serveBundle(const std::string& body, int status = 200);
    // A URL on which nothing listens: every download fails.
    void makeDownloadFail();
    int downloadsSeen() const;
    static void shipBundle(const std::string& body);
    // Replaces the extraction script with a shell script of this body.
    static void installScript(const std::string& body);

    TestServer server_;
    LogCapture log_;

private:
    int closedPortSocket_ = -1;
};

// Kernel thread id, as the lock traces show it.
int threadId();
