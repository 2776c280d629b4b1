// Trust-bundle refreshes end to end: a loopback server, the real
// extraction script and openssl, the host's handler, the expiry timer.
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "truststore/truststore_paths.h"

namespace fs = std::filesystem;
using truststore_paths::kCaBundlePem;
using truststore_paths::kDownloadedBundle;

namespace {

// Polls, bounded, until `done` holds.
bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

struct CaRefresh : ::testing::Test {
    TrustStoreSandbox sandbox;
    CaBundleManager& store = TrustStoreSandbox::store();
    LogCapture log;
    const std::string caPem = readWholeFile(TestPki::instance().file("ca.pem"));
    const std::string good = TrustStoreSandbox::makeBundle({TestPki::instance().file("ca.pem")});
};

}  // namespace

TEST_F(CaRefresh, DownloadedBundleIsVerifiedExtractedAndHandedOver) {
    // A longer stale download must leave no bytes behind the new one.
    writeFileCreatingDirs(kDownloadedBundle, std::string(64 * 1024, 'x'));
    sandbox.serveBundle(good);
    std::vector<std::string> handed;
    std::string handedContent;
    registerCAhandler([&](const char* path) {
        handed.push_back(path);
        handedContent = readWholeFile(path);
        return 0;
    });
    testing::internal::CaptureStderr();
    refreshCaBundle();
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_FALSE(store.use_default_bundle);
    EXPECT_EQ(store.ca_file, kCaBundlePem);
    EXPECT_EQ(handed, std::vector<std::string>{kCaBundlePem});
    EXPECT_EQ(handedContent, caPem);
    EXPECT_EQ(readWholeFile(kDownloadedBundle), good);
    EXPECT_EQ(headerOf(lastRequest(sandbox.server()), "User-Agent"), "libcurl-agent/1.0");
    // Write lock, then the status mutex; released the other way round (the
    // lock traces go to descriptor 2).
    const std::string thread = " gettid(): " + std::to_string(gettid()) + "\n";
    EXPECT_NE(err.find("LockWrite" + thread + "Lock\n"), std::string::npos) << err;
    EXPECT_NE(err.find("~Lock\n~LockWrite" + thread), std::string::npos) << err;

    // Ready: a failure-driven refresh only looks; an explicit one fetches.
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.downloadsSeen(), 1);
    refreshCaBundle();
    EXPECT_EQ(sandbox.downloadsSeen(), 2);
    EXPECT_EQ(sandbox.status(), 2);
}

TEST_F(CaRefresh, ShippedBundleStandsInUntilTheFirstHandOver) {
    sandbox.failDownloads();
    sandbox.installShippedBundle(good);
    int handlerResult = 1;
    int handlerCalls = 0;
    registerCAhandler([&](const char*) {
        ++handlerCalls;
        return handlerResult;
    });
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 3);
    EXPECT_EQ(log.count("Failed to download p7b, use default one"), 1u);
    EXPECT_EQ(store.ca_file, kCaBundlePem);
    EXPECT_TRUE(store.use_default_bundle);

    // The failed hand-over is retried, from the shipped copy again.
    handlerResult = 0;
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_EQ(handlerCalls, 2);
    EXPECT_EQ(log.count("Failed to download p7b, use default one"), 2u);
    EXPECT_FALSE(store.use_default_bundle);

    // From now on a failed download is a failure; the CA file stays.
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 3);
    EXPECT_EQ(handlerCalls, 2);
    EXPECT_EQ(store.ca_file, kCaBundlePem);
}

TEST_F(CaRefresh, UnwritableDownloadFailsAndNoHandlerStillMakesReady) {
    sandbox.serveBundle(good);
    sandbox.installShippedBundle(good);
    fs::remove_all(fs::path(kDownloadedBundle).parent_path());
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 3);
    // The fallback copy has nowhere to go either.
    EXPECT_EQ(log.count("Failed to download p7b, use default one"), 1u);
    EXPECT_TRUE(store.ca_file.empty());

    fs::create_directories(fs::path(kDownloadedBundle).parent_path());
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_FALSE(store.use_default_bundle);
    EXPECT_EQ(readWholeFile(kCaBundlePem), caPem);
}

TEST_F(CaRefresh, RejectedBundlesNeverBecomeTheCaFile) {
    const std::string previous = "previous CA file\n";
    writeFileCreatingDirs(kCaBundlePem, previous);
    // Good, but only ever used for a download that failed outright.
    sandbox.installShippedBundle(good);
    int handlerCalls = 0;
    registerCAhandler([&](const char*) { return ++handlerCalls, 0; });
    std::string tampered = good;
    tampered[tampered.find("BEGIN CERTIFICATE") + 100] ^= 0x01;
    const std::string extractCommand = std::string(truststore_paths::kExtractScript) + " " +
                                       truststore_paths::kRootSigningCert + " " + kDownloadedBundle + " " +
                                       kCaBundlePem;
    const std::vector<std::tuple<std::string, std::string, int>> answers = {
        {"tampered", tampered, 200},
        {"signed by a foreign signer",
         TrustStoreSandbox::makeBundle({TestPki::instance().file("ca.pem")}, "foreign_signer"), 200},
        {"error page", "<html>no such bundle</html>", 404},
    };
    for (const auto& [what, body, httpStatus] : answers) {
        log.clear();
        sandbox.serveBundle(body, httpStatus);
        refreshCaBundle();
        EXPECT_EQ(sandbox.status(), 3) << what;
        // An error page is written like a bundle; the script rejects it.
        EXPECT_EQ(readWholeFile(kDownloadedBundle), body) << what;
        EXPECT_EQ(readWholeFile(kCaBundlePem), previous) << what;
        EXPECT_EQ(std::distance(fs::directory_iterator(store.cert_dir), fs::directory_iterator()), 1) << what;
        // The script's first complaint reaches the log.
        EXPECT_EQ(log.countContaining("ca-bundle.pem stderr: "), 1u) << what;
        EXPECT_EQ(log.count(extractCommand + " stderr: "), 0u) << what;
    }
    EXPECT_EQ(handlerCalls, 0);
    EXPECT_TRUE(store.ca_file.empty());
    EXPECT_TRUE(store.use_default_bundle);
}

TEST_F(CaRefresh, ReadHoldDefersRefreshAndMissingFileTriggersOne) {
    const auto readHeld = [this] {
        if (pthread_rwlock_trywrlock(&store.file_lock) == EBUSY) return true;
        pthread_rwlock_unlock(&store.file_lock);
        return false;
    };
    // Nothing extracted yet and every refresh failing: an empty path, with
    // the hold taken all the same.
    sandbox.failDownloads();
    EXPECT_EQ(store.GetCaFile(), "");
    EXPECT_TRUE(readHeld());
    store.PutCaFile();
    EXPECT_FALSE(readHeld());

    // No file: the caller's thread refreshes and gets the new path.
    sandbox.serveBundle(good);
    EXPECT_EQ(store.GetCaFile(), kCaBundlePem);
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_EQ(sandbox.downloadsSeen(), 1);

    // Held: a refresh on another thread gets as far as the write lock.
    std::atomic<bool> finished{false};
    std::thread refresher([&] {
        refreshCaBundle();
        finished = true;
    });
    EXPECT_TRUE(eventually([&] { return sandbox.downloadsSeen() == 2; }));
    EXPECT_FALSE(eventually([&] { return finished.load(); }, std::chrono::milliseconds(300)));
    store.PutCaFile();
    EXPECT_TRUE(eventually([&] { return finished.load(); }));
    refresher.join();
    EXPECT_EQ(sandbox.status(), 2);

    // Present: handed out as it is, no refresh.
    EXPECT_EQ(store.GetCaFile(), kCaBundlePem);
    store.PutCaFile();
    EXPECT_EQ(sandbox.downloadsSeen(), 2);

    // Deleted, and the refresh fails: the old path still comes back.
    fs::remove(kCaBundlePem);
    sandbox.failDownloads();
    EXPECT_EQ(store.GetCaFile(), kCaBundlePem);
    EXPECT_EQ(sandbox.status(), 3);
    store.PutCaFile();
}

TEST_F(CaRefresh, ExpiryLetsTheReadyStateLapseEvenMidRefresh) {
    const auto secondsLeft = [this] {
        itimerspec left{};
        timer_gettime(store.timer_id, &left);
        return left.it_value.tv_sec;
    };
    sandbox.serveBundle(good);
    refreshCaBundle();
    ASSERT_EQ(sandbox.status(), 2);
    store.StartTimer();
    EXPECT_GT(secondsLeft(), 590);
    EXPECT_LE(secondsLeft(), 600);

    raise(SIGALRM);
    EXPECT_TRUE(eventually([] { return TrustStoreSandbox::status() == 0; }));
    // Expired: the next failure-driven refresh fetches again.
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.downloadsSeen(), 2);
    EXPECT_EQ(sandbox.status(), 2);

    // The signal lands on the thread that holds status_mutex in the middle
    // of a refresh (the handler runs with the trust store's locks held).
    int statusInHandler = -1;
    registerCAhandler([&](const char*) {
        raise(SIGALRM);
        pthread_kill(pthread_self(), SIGALRM);
        statusInHandler = store.bundle_status;  // this thread holds status_mutex
        return 0;
    });
    refreshCaBundle();
    EXPECT_EQ(statusInHandler, 2);
    EXPECT_TRUE(eventually([] { return TrustStoreSandbox::status() == 0; }));

    store.StopTimer();
    EXPECT_EQ(secondsLeft(), 0);
}
