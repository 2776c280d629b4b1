// The trust store end to end: child processes of /bin/sh (popen3), the real
// extraction script and openssl run by ExtractCa, bundles from a loopback
// server, the host's handler, the CA file's read hold and the expiry timer.
#include <fcntl.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/test_helpers.h"
#include "support/trust_sandbox.h"
#include "truststore/truststore_paths.h"
#include "webclient/popen3.h"

namespace fs = std::filesystem;
using truststore_paths::kCaBundlePem;

namespace {

// No child at all, running or zombie (a zombie found is reaped, and fails).
bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// A shell loop writing `lines` lines of about 60 bytes to descriptor `fd`.
std::string floodOf(int lines, int fd) {
    return "i=0; while [ $i -lt " + std::to_string(lines) + " ]; do echo \"line $i " + std::string(50, '.') +
           "\" >&" + std::to_string(fd) + "; i=$((i+1)); done\n";
}

// Polls, bounded, until `done` holds.
bool eventually(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

struct TrustStore : ::testing::Test {
    TrustStoreSandbox sandbox;
    CaBundleManager& store = TrustStoreSandbox::store();
    const std::string caPem = readWholeFile(TestPki::instance().file("ca.pem"));
    const std::string good = TrustStoreSandbox::makeBundle({TestPki::instance().file("ca.pem")});
};

}  // namespace

TEST(Popen3, CapturesOutputAsBoundedLinesAndTheExitStatus) {
    const struct {
        std::string command;
        bool fromStderr;
        std::string buffer;  // all of it, as fgets_some leaves it
        int status;
    } cases[] = {
        {"printf 'one\\ntwo\\n'; exit 3", false, std::string("one\n\0two\n\0", 10) + std::string(54, '\0'),
         W_EXITCODE(3, 0)},
        {"printf 'oops\\n' >&2; kill -9 $$", true, "oops\n" + std::string(11, '\0'), W_EXITCODE(0, SIGKILL)},
        {"/nonexistent/command", false, std::string(8, '\0'), W_EXITCODE(127, 0)},
    };
    for (const auto& c : cases) {
        std::vector<char> buffer(c.buffer.size(), 'x');
        QuietStderr quiet;  // the child-process functions report to descriptor 2
        popen3_streams child = popen3(c.command.c_str());
        EXPECT_EQ(fgets_some(buffer.data(), static_cast<int>(buffer.size()),
                             c.fromStderr ? child.child_err : child.child_out), 0);
        EXPECT_EQ(pclose3(child), c.status) << c.command;
        EXPECT_EQ(std::string(buffer.data(), buffer.size()), c.buffer) << c.command;
    }
    EXPECT_TRUE(noChildren());

    // A negative size reads nothing and leaves the stream alone; a null
    // buffer holds nothing, so the stream is drained as for a full one.
    char text[] = "one\ntwo\n";
    for (const bool nullBuffer : {false, true}) {
        FILE* stream = fmemopen(text, sizeof text - 1, "r");
        char buffer[4] = "xx";
        QuietStderr quiet;
        EXPECT_EQ(fgets_some(nullBuffer ? nullptr : buffer, nullBuffer ? 16 : -1, stream), 0);
        EXPECT_EQ(std::ftell(stream), nullBuffer ? 8 : 0) << "null buffer: " << nullBuffer;
        EXPECT_STREQ(buffer, "xx");
        std::fclose(stream);
    }
    EXPECT_EQ(strings_to_stream(stdout, nullptr, 5), 1);

    // Input for a child that has closed its end: SIGPIPE must not end the host.
    QuietStderr quiet;
    popen3_streams deaf = popen3("exec 0<&-; echo closed");
    char line[16] = {};
    EXPECT_EQ(fgets_some(line, sizeof line, deaf.child_out), 0);
    std::vector<char> lines(10000, 'x');
    EXPECT_EQ(strings_to_stream(deaf.child_in, lines.data(), lines.size()), 0);
    EXPECT_EQ(pclose3(deaf), 0);

    // Nor a standard error whose reader has gone (a log collector that was
    // restarted): the diagnostics are lost, not the host.
    waitUntilOtherThreadsSleep();
    const pid_t host = fork();
    if (host == 0) {
        alarm(10);
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        if (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], STDERR_FILENO) < 0) _exit(2);
        (void)print_exit_code(0);
        (void)print_exit_code(-1);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(host, &status, 0), host);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "ended by signal " << WTERMSIG(status);
}

TEST_F(TrustStore, FailedFloodingOrHungScriptFailsTheRefreshAndIsReaped) {
    sandbox.serveBundle(good);
    LogCapture log;
    const auto before = openDescriptors();
    const std::string scripts[] = {
        // Far more on stderr than a pipe holds before stdout ends: read one
        // stream after the other, this stalls until the time limit kills it.
        floodOf(2000, 2) + "echo first out\n" + floodOf(2000, 1) + "exit 1",
        // Deaf to being asked: killed a second later, its temporary file
        // removed for it.
        "trap '' TERM\n: > \"${3%/*}/.ca-bundle.deaf\"\nexec sleep 600",
        "exec >&- 2>&-\nexec sleep 600",  // both outputs end long before it does
        // Asked to end before it is killed; the shell's own child must go with it.
        "trap ': > \"${3%/*}/asked\"; exit 1' TERM\nsleep 600 &\nwait",
        // The real script with openssl hung: its temporary file must go.
        "openssl() { sleep 600; }\n" + readWholeFile(std::string(WEBCLIENT_SOURCE_DIR) + "/tools/extract_ca_bundle.sh"),
    };
    // Orphans come to this process, so none can escape notice.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    for (const std::string& script : scripts) {
        sandbox.installScript("#!/bin/sh\n" + script + "\n");
        {
            QuietStderr quiet;
            refreshCaBundle();
        }
        EXPECT_EQ(sandbox.status(), 3) << script;
        // Reaps each child as it ends; with this process a subreaper,
        // orphaned grandchildren count.
        EXPECT_TRUE(eventually(noChildren)) << script;
    }
    EXPECT_EQ(log.countContaining("still running after 5000 ms, killed"), 4u) << "the hung ones only";
    EXPECT_TRUE(fs::exists(fs::path(kCaBundlePem).parent_path() / "asked"));
    for (const auto& entry : fs::directory_iterator(fs::path(kCaBundlePem).parent_path())) {
        EXPECT_EQ(entry.path().filename().string().rfind(".ca-bundle.", 0), std::string::npos) << entry.path();
    }
    EXPECT_EQ(log.countContaining(" stdout: first out"), 1u);
    EXPECT_EQ(log.countContaining(" stderr: line 0 " + std::string(50, '.')), 1u);
    EXPECT_EQ(openDescriptors(), before);
}

namespace {

// Someone else's process (not a child of this one) made to take `pid`: a
// helper child creates it with clone3's set_tid and waits for it, and exits
// with 100 + the signal that ended it. Returns the helper's pid.
pid_t startStrangerAt(pid_t pid) {
    const pid_t helper = fork();
    if (helper != 0) return helper;
    signal(SIGCHLD, SIG_DFL);
    clone_args args{};
    args.exit_signal = SIGCHLD;
    args.set_tid = reinterpret_cast<uintptr_t>(&pid);
    args.set_tid_size = 1;
    const long stranger = syscall(SYS_clone3, &args, sizeof args);
    if (stranger == 0) {
        for (;;) pause();
    }
    int status = 0;
    if (stranger < 0 || waitpid(static_cast<pid_t>(stranger), &status, 0) < 0 || !WIFSIGNALED(status)) _exit(1);
    _exit(100 + WTERMSIG(status));
}

}  // namespace

TEST_F(TrustStore, AScriptReapedByTheHostHasItsPidLeftAlone) {
    // A host that ignores SIGCHLD has the script's shell reaped as it exits;
    // its pid may then go to any process, which a timed-out extraction
    // must not signal. A background child keeps the pipes open past the
    // time limit.
    const fs::path dir = fs::path(kCaBundlePem).parent_path();
    const std::string rootFile = (dir / "root.pid").string();
    const std::string lingerFile = (dir / "linger.pid").string();
    sandbox.installScript("#!/bin/sh\necho $PPID > " + rootFile + ".tmp; mv " + rootFile + ".tmp " + rootFile +
                          "\nsleep 8 & echo $! > " + lingerFile + "\nexit 0\n");
    sandbox.serveBundle(good);
    struct sigaction ignore {}, previous {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &previous);
    std::thread refresh([] {
        QuietStderr quiet;
        refreshCaBundle();
    });
    ASSERT_TRUE(eventually([&] { return fs::exists(rootFile); }));
    const pid_t root = std::stoi(readWholeFile(rootFile));
    ASSERT_TRUE(eventually([&] { return kill(root, 0) != 0; }));
    const pid_t helper = startStrangerAt(root);
    refresh.join();
    sigaction(SIGCHLD, &previous, nullptr);
    EXPECT_EQ(sandbox.status(), 3);

    kill(root, SIGUSR1);
    int helperStatus = 0;
    ASSERT_EQ(waitpid(helper, &helperStatus, 0), helper);
    EXPECT_EQ(WEXITSTATUS(helperStatus), 100 + SIGUSR1) << "the stranger lived until now";
    const pid_t linger = std::stoi(readWholeFile(lingerFile));
    kill(linger, SIGKILL);
    waitpid(linger, nullptr, 0);  // handed to this process if it is a subreaper
}

TEST_F(TrustStore, DownloadedBundleIsVerifiedExtractedAndHandedOver) {
    // No CA file, and the refresh fails: an empty path, held all the same.
    sandbox.failDownloads();
    EXPECT_EQ(store.GetCaFile(), "");
    EXPECT_TRUE(sandbox.caFileHeld());
    store.PutCaFile();
    EXPECT_FALSE(sandbox.caFileHeld());
    store.PutCaFile();  // one too many: refused, so the next refresh can lock

    // A longer stale download must leave no bytes behind the new one.
    writeFileCreatingDirs(truststore_paths::kDownloadedBundle, std::string(64 * 1024, 'x'));
    // An extraction ended with its host left its temporary file; a recent
    // one may be another process's extraction under way.
    const fs::path leftover = fs::path(kCaBundlePem).parent_path() / ".ca-bundle.old";
    const fs::path recent = fs::path(kCaBundlePem).parent_path() / ".ca-bundle.new";
    writeFileCreatingDirs(leftover.string(), "x");
    writeFileCreatingDirs(recent.string(), "x");
    fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::hours(1));
    sandbox.serveBundle(good);
    // No CA file: the caller's thread refreshes (no handler: ready all the same).
    EXPECT_EQ(store.GetCaFile(), kCaBundlePem);
    store.PutCaFile();
    EXPECT_FALSE(fs::exists(leftover));
    EXPECT_TRUE(fs::exists(recent));
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_EQ(readWholeFile(kCaBundlePem), caPem);
    EXPECT_EQ(readWholeFile(truststore_paths::kDownloadedBundle), good);

    // Present and ready: neither GetCaFile nor a failure-driven refresh
    // fetches; an explicit refresh does, and hands the new file to the host.
    std::string handed;
    registerCAhandler([&](const char* path) {
        registerCAhandler([](const char*) { return 0; });  // replaced while it runs
        handed = path + (": " + readWholeFile(path));
        return 0;
    });
    EXPECT_EQ(store.GetCaFile(), kCaBundlePem);
    store.PutCaFile();
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.downloadsSeen(), 1);
    refreshCaBundle();
    EXPECT_EQ(sandbox.downloadsSeen(), 2);
    EXPECT_EQ(handed, kCaBundlePem + (": " + caPem));
    EXPECT_EQ(sandbox.status(), 2);

    // A handler that reports a failure fails the refresh, and so does one
    // that throws; nothing reaches the caller, and the failure is retried.
    registerCAhandler([](const char*) { return 1; });
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 3);
    registerCAhandler([](const char*) -> int { throw std::runtime_error("switch unreachable"); });
    EXPECT_NO_THROW(refreshCaBundle());
    EXPECT_EQ(sandbox.status(), 3);
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.downloadsSeen(), 5);
}

TEST_F(TrustStore, RejectedBundlesKeepThePreviousCaFile) {
    writeFileCreatingDirs(kCaBundlePem, "previous\n");
    // Good, but a download that completed never falls back to it.
    writeFileCreatingDirs(truststore_paths::kShippedBundle, good);
    int handlerCalls = 0;
    registerCAhandler([&](const char*) { return ++handlerCalls, 0; });
    std::string tampered = good;
    tampered[tampered.find("BEGIN CERTIFICATE") + 100] ^= 0x01;
    const struct {
        const char* what;
        std::string body;
        int httpStatus;
    } answers[] = {
        {"tampered", tampered, 200},
        {"foreign signer", TrustStoreSandbox::makeBundle({TestPki::instance().file("ca.pem")}, "foreign_signer"), 200},
        {"error page", "<html>no such bundle</html>", 404},
    };
    for (const auto& answer : answers) {
        sandbox.serveBundle(answer.body, answer.httpStatus);
        refreshCaBundle();
        EXPECT_EQ(sandbox.status(), 3) << answer.what;
        EXPECT_EQ(readWholeFile(kCaBundlePem), "previous\n") << answer.what;
        EXPECT_EQ(std::distance(fs::directory_iterator(store.cert_dir), fs::directory_iterator()), 1)
            << answer.what << ": no temporary file left";
    }
    // A host that ignores SIGCHLD has its children reaped by the kernel: the
    // script's verdict is lost, and a lost verdict is no verification.
    sandbox.serveBundle(tampered);
    struct sigaction ignore {}, previous {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &previous);
    refreshCaBundle();
    sigaction(SIGCHLD, &previous, nullptr);
    EXPECT_EQ(sandbox.status(), 3);
    EXPECT_EQ(readWholeFile(kCaBundlePem), "previous\n");
    EXPECT_EQ(handlerCalls, 0);
    EXPECT_TRUE(store.ca_file.empty());
}

TEST_F(TrustStore, TheShippedBundleServesOnlyUntilAFirstHandOver) {
    registerCAhandler([](const char*) { return 0; });  // a hand-over counts with or without one
    const std::string otherCaPem = readWholeFile(TestPki::instance().file("other_ca.pem"));
    writeFileCreatingDirs(truststore_paths::kShippedBundle,
                          TrustStoreSandbox::makeBundle({TestPki::instance().file("other_ca.pem")}));
    sandbox.failDownloads();
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 2);
    EXPECT_EQ(readWholeFile(kCaBundlePem), otherCaPem);
    LogCapture log;
    refreshCaBundle();
    EXPECT_EQ(sandbox.status(), 3);
    EXPECT_EQ(log.count("Failed to download p7b, use default one"), 0u);
    EXPECT_EQ(log.count(" failed to download CA "), 1u);
    EXPECT_EQ(readWholeFile(kCaBundlePem), otherCaPem);

    // Two refreshes at once, as when the expiry resets the status during
    // one, before any hand-over: the first downloads the current bundle and
    // waits for the CA file (held here); the second's download fails and
    // may use the shipped copy. Whichever goes first, the shipped copy must
    // not end up extracted in place of the downloaded bundle.
    store.use_default_bundle = true;
    std::atomic<int> asked{0};
    TestServer server("127.0.0.1", [&](httplib::Server& s) {
        s.Get("/bundle", [&](const httplib::Request&, httplib::Response& res) {
            if (asked++ == 0) return res.set_content(good, "application/octet-stream");
            res.set_content_provider(good.size(), "application/octet-stream",
                                     [](size_t, size_t, httplib::DataSink&) { return false; });  // cut short
        });
    });
    store.download_url = server.url("127.0.0.1", "/bundle");
    store.StartTimer();
    pthread_rwlock_rdlock(&store.file_lock);
    auto first = std::async(std::launch::async, [] { refreshCaBundle(); });
    ASSERT_TRUE(eventually([&] { return asked == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // on to the CA file's lock
    raise(SIGALRM);
    ASSERT_TRUE(eventually([] { return TrustStoreSandbox::status() == 0; }));
    auto second = std::async(std::launch::async, [] { refreshCaBundle(); });
    ASSERT_TRUE(eventually([&] { return asked == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // its fallback, if it takes one now
    pthread_rwlock_unlock(&store.file_lock);
    first.get();
    second.get();
    store.StopTimer();
    EXPECT_EQ(readWholeFile(kCaBundlePem), caPem);
}

TEST_F(TrustStore, ExpiryLetsTheReadyStateLapse) {
    const auto secondsLeft = [this] {
        itimerspec left{};
        timer_gettime(store.timer_id, &left);
        return left.it_value.tv_sec;
    };
    sandbox.serveBundle(good);
    refreshCaBundle();
    store.StartTimer();
    EXPECT_GT(secondsLeft(), 590);
    // A forked child that tries the timer and exits (running the trust
    // store's static destruction) must leave this process's relay running.
    fflush(nullptr);
    waitUntilOtherThreadsSleep();
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        store.StartTimer();
        exit(0);
    }
    int childStatus = -1;
    ASSERT_EQ(waitpid(child, &childStatus, 0), child);
    EXPECT_TRUE(WIFEXITED(childStatus));

    raise(SIGALRM);
    EXPECT_TRUE(eventually([] { return TrustStoreSandbox::status() == 0; }));
    // Expired: the next failure-driven refresh fetches again.
    refreshCaBundleOnFailure();
    EXPECT_EQ(sandbox.downloadsSeen(), 2);
    EXPECT_EQ(sandbox.status(), 2);

    store.StopTimer();
    EXPECT_EQ(secondsLeft(), 0);
}

// A daemon that closed its standard descriptors after loading the library:
// the expiry relay's pipe must not take 1 and 2, or every line written to
// standard error would read as an expiry, whose delivery writes the next.
// Run in a fresh process, where no relay has been started yet.
TEST_F(TrustStore, TheExpiryRelayNeverTakesAClosedStandardDescriptor) {
    sandbox.serveBundle(good);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refreshCaBundle();
            for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) close(fd);
            (void)open("/dev/null", O_RDONLY);  // the host's own, on 0
            store.StartTimer();
            (void)print_exit_code(0);  // a line to standard error
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            const int status = TrustStoreSandbox::status();
            fs::remove_all(TestPki::instance().file(""));  // this process's own, made for its fixture
            _exit(status == 2 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
