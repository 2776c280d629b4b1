// Trust-bundle refreshes end to end: a loopback server, the real
// extraction script and openssl, the host's handler.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_helpers.h"
#include "truststore/stderr_capture.h"
#include "truststore/trust_store_fixture.h"
#include "truststore/truststore_paths.h"

namespace fs = std::filesystem;
using truststore_paths::kCaBundlePem;
using truststore_paths::kDownloadedBundle;

namespace {

class CaRefresh : public TrustStoreTest {};

std::vector<std::string> filesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    return names;
}

std::string extractCommand() {
    return std::string(truststore_paths::kExtractScript) + " " + truststore_paths::kRootSigningCert + " " +
           kDownloadedBundle + " " + kCaBundlePem;
}

std::string lockTrace(const char* what) {
    return std::string(what) + " gettid(): " + std::to_string(threadId()) + "\n";
}

}  // namespace

TEST_F(CaRefresh, DownloadedBundleIsVerifiedExtractedAndHandedOver) {
    // A longer stale download must leave no bytes behind the new one.
    std::ofstream(kDownloadedBundle) << std::string(64 * 1024, 'x');
    serveBundle(bundle("good"));
    std::vector<std::string> handed;
    std::string handedContent;
    registerCAhandler([&](const char* path) {
        handed.push_back(path);
        handedContent = readWholeFile(path);
        return 0;
    });
    StderrCapture err;
    refreshCaBundle();
    err.restore();

    EXPECT_EQ(status(), 2);
    EXPECT_FALSE(store().use_default_bundle);
    EXPECT_EQ(store().ca_file, kCaBundlePem);
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_EQ(handed[0], kCaBundlePem);
    EXPECT_EQ(handedContent, caPem());
    EXPECT_EQ(readWholeFile(kDownloadedBundle), bundle("good"));
    EXPECT_EQ(headerOf(lastRequest(server_), "User-Agent"), "libcurl-agent/1.0");
    EXPECT_EQ(log_.count("[0]http response_code: 200 error message: No error"), 1u);
    // Write lock, then the status mutex; released the other way round.
    EXPECT_NE(err.text().find(lockTrace("LockWrite") + "Lock\n"), std::string::npos) << err.text();
    EXPECT_NE(err.text().find("~Lock\n" + lockTrace("~LockWrite")), std::string::npos);

    // Ready: a failure-driven refresh only looks; an explicit one fetches.
    refreshCaBundleOnFailure();
    EXPECT_EQ(downloadsSeen(), 1);
    EXPECT_EQ(log_.count("[UpdateCaFileOnFailure] current status: 2"), 1u);
    EXPECT_EQ(log_.count("[UpdateCaFileOnFailure] Begin DownloadTask"), 0u);
    refreshCaBundle();
    EXPECT_EQ(downloadsSeen(), 2);
    EXPECT_EQ(status(), 2);
}

TEST_F(CaRefresh, ShippedBundleStandsInUntilTheFirstHandOver) {
    makeDownloadFail();
    shipBundle(bundle("good"));
    int handlerResult = 1;
    int handlerCalls = 0;
    registerCAhandler([&](const char*) {
        ++handlerCalls;
        return handlerResult;
    });
    StderrCapture err;
    refreshCaBundle();
    EXPECT_EQ(status(), 3);
    EXPECT_EQ(log_.count("Failed to download p7b, use default one"), 1u);
    EXPECT_EQ(log_.count(" failed to install CA to switch"), 1u);
    EXPECT_EQ(store().ca_file, kCaBundlePem);
    EXPECT_TRUE(store().use_default_bundle);

    // The failed hand-over is retried, from the shipped copy again.
    handlerResult = 0;
    refreshCaBundleOnFailure();
    EXPECT_EQ(log_.count("[UpdateCaFileOnFailure] Begin DownloadTask"), 1u);
    EXPECT_EQ(status(), 2);
    EXPECT_EQ(handlerCalls, 2);
    EXPECT_EQ(log_.count("Failed to download p7b, use default one"), 2u);
    EXPECT_FALSE(store().use_default_bundle);

    // From now on a failed download is a failure; the CA file stays.
    refreshCaBundle();
    err.restore();
    EXPECT_EQ(status(), 3);
    EXPECT_EQ(log_.count(" failed to download CA "), 1u);
    EXPECT_EQ(store().ca_file, kCaBundlePem);
    EXPECT_EQ(err.count("curl_easy_perform() failed. code: 7 message: Couldn't connect to server\n"), 3u)
        << err.text();
}

TEST_F(CaRefresh, UnwritableDownloadFailsAndNoHandlerStillMakesReady) {
    serveBundle(bundle("good"));
    shipBundle(bundle("good"));
    fs::remove_all(fs::path(kDownloadedBundle).parent_path());
    StderrCapture err;
    refreshCaBundle();
    EXPECT_EQ(status(), 3);
    EXPECT_EQ(log_.count("file open error. errno: 2"), 1u);
    // The fallback copy has nowhere to go either.
    EXPECT_EQ(log_.count("Failed to download p7b, use default one"), 1u);
    EXPECT_EQ(log_.count(" failed to download CA "), 1u);
    EXPECT_TRUE(store().ca_file.empty());

    fs::create_directories(fs::path(kDownloadedBundle).parent_path());
    refreshCaBundle();
    err.restore();
    EXPECT_EQ(status(), 2);
    EXPECT_EQ(log_.count("no handler to upload CAs"), 1u);
    EXPECT_FALSE(store().use_default_bundle);
    EXPECT_EQ(readWholeFile(kCaBundlePem), caPem());
}

TEST_F(CaRefresh, RejectedBundlesNeverBecomeTheCaFile) {
    const std::string previous = "previous CA file\n";
    std::ofstream(kCaBundlePem) << previous;
    // Good, but only ever used for a download that failed outright.
    shipBundle(bundle("good"));
    int handlerCalls = 0;
    registerCAhandler([&](const char*) { return ++handlerCalls, 0; });
    const std::vector<std::tuple<std::string, std::string, int>> answers = {
        {"tampered", bundle("tampered"), 200},
        {"signed by a foreign signer", bundle("foreign"), 200},
        {"error page", "<html>no such bundle</html>", 404},
    };
    StderrCapture err;
    for (const auto& [what, body, httpStatus] : answers) {
        log_.clear();
        serveBundle(body, httpStatus);
        refreshCaBundle();
        EXPECT_EQ(status(), 3) << what;
        EXPECT_EQ(log_.count(" failed to extract CA"), 1u) << what;
        EXPECT_EQ(log_.count("Failed to download p7b, use default one"), 0u) << what;
        // An error page is written like a bundle; the script rejects it.
        EXPECT_EQ(readWholeFile(kDownloadedBundle), body) << what;
        EXPECT_EQ(readWholeFile(kCaBundlePem), previous) << what;
        EXPECT_EQ(filesIn(store().cert_dir), std::vector<std::string>{"ca-bundle.pem"}) << what;
        // The script's first complaint reaches the log.
        EXPECT_EQ(log_.countContaining("ca-bundle.pem stderr: "), 1u) << what;
        EXPECT_EQ(log_.count(extractCommand() + " stderr: "), 0u) << what;
    }
    err.restore();
    EXPECT_EQ(log_.count("[0]http response_code: 404 error message: No error"), 1u);
    EXPECT_EQ(handlerCalls, 0);
    EXPECT_TRUE(store().ca_file.empty());
    EXPECT_TRUE(store().use_default_bundle);
}

TEST_F(CaRefresh, ReadHoldDefersRefreshAndMissingFileTriggersOne) {
    StderrCapture err;
    // Nothing extracted yet and every refresh failing: an empty path, with
    // the hold taken all the same.
    makeDownloadFail();
    EXPECT_EQ(store().GetCaFile(), "");
    EXPECT_EQ(log_.count(" Do not get CaFile at: "), 1u);
    store().PutCaFile();
    EXPECT_EQ(log_.count("PutCaFile"), 1u);
    EXPECT_NE(err.text().find(lockTrace("LOCK_RD") + lockTrace("UNLOCK")), std::string::npos) << err.text();
    EXPECT_EQ(err.count(lockTrace("LOCK_RD")), 2u);
    EXPECT_EQ(err.count(lockTrace("UNLOCK")), 2u);

    // No file: the caller's thread refreshes and gets the new path.
    serveBundle(bundle("good"));
    EXPECT_EQ(store().GetCaFile(), kCaBundlePem);
    EXPECT_EQ(status(), 2);
    EXPECT_EQ(downloadsSeen(), 1);

    // Held: a refresh on another thread gets as far as the write lock.
    std::atomic<bool> finished{false};
    std::thread refresher([&] {
        refreshCaBundle();
        finished = true;
    });
    EXPECT_TRUE(eventually([&] { return downloadsSeen() == 2; }));
    EXPECT_FALSE(eventually([&] { return finished.load(); }, std::chrono::milliseconds(300)));
    store().PutCaFile();
    EXPECT_TRUE(eventually([&] { return finished.load(); }));
    refresher.join();
    EXPECT_EQ(status(), 2);

    // Present: handed out as it is, no refresh.
    EXPECT_EQ(store().GetCaFile(), kCaBundlePem);
    EXPECT_EQ(log_.count(" Got CaFile"), 1u);
    store().PutCaFile();
    EXPECT_EQ(downloadsSeen(), 2);

    // Deleted, and the refresh fails: the old path still comes back.
    fs::remove(kCaBundlePem);
    makeDownloadFail();
    EXPECT_EQ(store().GetCaFile(), kCaBundlePem);
    EXPECT_EQ(status(), 3);
    store().PutCaFile();
    err.restore();
    EXPECT_EQ(log_.count(std::string(" Do not get CaFile at: ") + kCaBundlePem), 1u);
}
