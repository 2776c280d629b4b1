// The extraction script as a child process (floods, hangs, failures,
// descriptor hygiene) and the expiry timer's signal path.
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "truststore/process_probe.h"
#include "truststore/stderr_capture.h"
#include "truststore/trust_store_fixture.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class ExtractScript : public TrustStoreTest {};
class CaTimer : public TrustStoreTest {};

std::string commandFor(const std::string& bundle, const std::string& output) {
    return std::string(truststore_paths::kExtractScript) + " " + truststore_paths::kRootSigningCert + " " +
           bundle + " " + output;
}

// Writes `lines` numbered lines of about 60 bytes to `stream` (1 or 2).
std::string floodOf(int lines, int stream) {
    return "i=0; while [ $i -lt " + std::to_string(lines) + " ]; do echo \"line $i " + std::string(50, '.') +
           "\" >&" + std::to_string(stream) + "; i=$((i+1)); done";
}

time_t secondsLeft(const CaBundleManager& manager) {
    itimerspec left{};
    timer_gettime(manager.timer_id, &left);
    return left.it_value.tv_sec;
}

}  // namespace

TEST_F(ExtractScript, FloodOnEitherStreamDoesNotStall) {
    // A stall fails the test by a kill instead of hanging it.
    // Far more than a pipe holds on stderr before stdout is closed: read
    // one stream after the other, this would never finish.
    installScript(floodOf(2000, 2) + "\necho first out\n" + floodOf(2000, 1) + "\nexec >&-\nexit 0");
    StderrCapture err;
    const int status = store().ExtractCa("in.p7b", "out.pem");
    err.restore();

    EXPECT_EQ(status, 0);
    EXPECT_EQ(log_.count(commandFor("in.p7b", "out.pem") + " stdout: first out"), 1u);
    EXPECT_EQ(log_.count(commandFor("in.p7b", "out.pem") + " stderr: line 0 " + std::string(50, '.')), 1u);
    EXPECT_EQ(err.count("Buffer full. Waste stream.\n"), 2u);
    EXPECT_EQ(err.count("fgets reach stream EOF\n"), 2u);
    EXPECT_EQ(err.count("Exit code: 0\n"), 1u);
}

TEST_F(ExtractScript, HungScriptIsKilledAndReaped) {
    serveBundle(bundle("good"));
    // Hung while writing nothing, and hung after closing both outputs.
    for (const char* body : {"exec sleep 600", "exec >&- 2>&-\nexec sleep 600"}) {
        log_.clear();
        installScript(body);
        StderrCapture err;
        const auto start = std::chrono::steady_clock::now();
        refreshCaBundle();
        const auto took = std::chrono::steady_clock::now() - start;
        err.restore();

        EXPECT_EQ(status(), 3) << body;
        EXPECT_LT(took, 30s) << body;
        EXPECT_EQ(log_.countContaining("still running after 5000 ms, killed"), 1u) << body;
        EXPECT_EQ(log_.count(" failed to extract CA"), 1u) << body;
        EXPECT_EQ(err.count("Process does not exit normally!\n"), 1u) << body;
        EXPECT_TRUE(hasNoChildren()) << body;
    }
}

TEST_F(ExtractScript, FailingScriptsFailAndRunsLeaveNothingBehind) {
    StderrCapture err;
    // First, before any download: the server's side of a finished
    // connection would otherwise close somewhere in the middle.
    installScript("exit 0");
    const size_t before = countOpenDescriptors();
    for (int run = 0; run < 100; ++run) ASSERT_EQ(store().ExtractCa("in.p7b", "out.pem"), 0) << run;
    EXPECT_EQ(countOpenDescriptors(), before);
    EXPECT_TRUE(hasNoChildren());

    serveBundle(bundle("good"));
    const std::vector<std::pair<const char*, const char*>> failures = {
        {"non-zero exit", "echo broken >&2; exit 1"},
        {"killed by a signal", "kill -9 $$"},
        {"missing", nullptr},
    };
    for (const auto& [what, body] : failures) {
        log_.clear();
        if (body != nullptr) {
            installScript(body);
        } else {
            fs::remove(truststore_paths::kExtractScript);
        }
        refreshCaBundle();
        EXPECT_EQ(status(), 3) << what;
        EXPECT_EQ(log_.count(" failed to extract CA"), 1u) << what;
        EXPECT_TRUE(store().ca_file.empty()) << what;
        EXPECT_TRUE(hasNoChildren()) << what;
    }
    err.restore();
    EXPECT_EQ(err.count("Exit code: 1\n"), 1u);
    EXPECT_EQ(err.count("Exit code: 127\n"), 1u);
}

TEST_F(CaTimer, ExpiryLetsTheReadyStateLapseEvenMidRefresh) {
    serveBundle(bundle("good"));
    refreshCaBundle();
    ASSERT_EQ(status(), 2);
    store().StartTimer();
    EXPECT_GT(secondsLeft(store()), 590);
    EXPECT_LE(secondsLeft(store()), 600);

    raise(SIGALRM);
    EXPECT_TRUE(eventually([] { return status() == 0; }));
    EXPECT_TRUE(eventually([this] { return log_.count(" Catched timer signal: 14 ... !!") == 1; }));
    // Expired: the next failure-driven refresh fetches again.
    refreshCaBundleOnFailure();
    EXPECT_EQ(downloadsSeen(), 2);
    EXPECT_EQ(status(), 2);

    // The signal lands on the thread that holds status_mutex in the middle
    // of a refresh (the handler runs with the trust store's locks held).
    int statusInHandler = -1;
    registerCAhandler([&](const char*) {
        raise(SIGALRM);
        pthread_kill(pthread_self(), SIGALRM);
        statusInHandler = store().bundle_status;  // this thread holds status_mutex
        return 0;
    });
    refreshCaBundle();
    EXPECT_EQ(statusInHandler, 2);
    EXPECT_TRUE(eventually([] { return status() == 0; }));
    EXPECT_TRUE(eventually([this] { return log_.count(" Catched timer signal: 14 ... !!") >= 2; }));

    store().StopTimer();
    EXPECT_EQ(secondsLeft(store()), 0);
    EXPECT_EQ(log_.count("StopTimer "), 1u);
}
