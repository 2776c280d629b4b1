// Child processes against real children of /bin/sh: the popen3 functions,
// and the extraction script as ExtractCa runs it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/pki.h"
#include "support/trust_sandbox.h"
#include "truststore/truststore_paths.h"
#include "webclient/popen3.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
// The child-process functions write their diagnostics to descriptor 2.
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

size_t openDescriptors() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// No child at all, running or zombie (a zombie found is reaped, and fails).
bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

std::string printed(char* buffer, size_t size) {
    char* text = nullptr;
    size_t length = 0;
    FILE* sink = open_memstream(&text, &length);
    EXPECT_EQ(strings_to_stream(sink, buffer, size), 0);
    fclose(sink);
    std::string result(text, length);
    free(text);
    return result;
}

// Writes `lines` numbered lines of about 60 bytes to descriptor `fd`.
std::string floodOf(int lines, int fd) {
    return "i=0; while [ $i -lt " + std::to_string(lines) + " ]; do echo \"line $i " + std::string(50, '.') +
           "\" >&" + std::to_string(fd) + "; i=$((i+1)); done";
}

}  // namespace

TEST(Popen3, ReadsOutputIntoABoundedBufferOfLines) {
    // Far more than a pipe holds: the child finishes only if it is drained.
    const std::string flood = "i=0; while [ $i -lt 20000 ]; do echo abcdefghij; i=$((i+1)); done; exit 3";
    struct Case {
        std::string command;
        bool fromStderr;
        std::string buffer;   // all of it, as fgets_some leaves it
        std::string printed;  // as strings_to_stream writes it
        int exitCode;
    };
    const std::vector<Case> cases = {
        {"printf 'one\\ntwo\\n'", false, std::string("one\n\0two\n\0", 10) + std::string(54, '\0'),
         "one\n\ntwo\n\n", 0},
        {"printf 'oops\\n' >&2", true, std::string("oops\n") + std::string(11, '\0'), "oops\n\n", 0},
        {"true", false, std::string(8, '\0'), "", 0},
        // A line longer than the room left is split as fgets splits it; a
        // room of exactly 1 holds just the terminator.
        {flood, false, std::string("abcdefghij\n\0abc\0", 16), "abcdefghij\n\nabc\n", 3},
        {flood, false, std::string("abcdefghij\n\0\0", 13), "abcdefghij\n\n", 3},
    };
    for (const Case& c : cases) {
        std::vector<char> buffer(c.buffer.size(), 'x');
        CaptureStderr();
        popen3_streams child = popen3(c.command.c_str());
        const int read = fgets_some(buffer.data(), static_cast<int>(buffer.size()),
                                    c.fromStderr ? child.child_err : child.child_out);
        const int status = pclose3(child);
        (void)GetCapturedStderr();
        EXPECT_EQ(read, 0) << c.command;
        EXPECT_EQ(std::string(buffer.data(), buffer.size()), c.buffer) << c.command;
        EXPECT_EQ(printed(buffer.data(), buffer.size()), c.printed) << c.command;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << c.command << ": " << status;
    }
}

TEST(Popen3, ReportsHowTheChildEndedAndRejectsStreamsOfNoChild) {
    struct Case {
        const char* command;
        int status;
        int printResult;
        const char* report;
    };
    const Case cases[] = {
        {"exit 0", W_EXITCODE(0, 0), 0, "Exit code: 0\n"},
        {"/nonexistent/command", W_EXITCODE(127, 0), 0, "Exit code: 127\n"},
        {"kill -9 $$", W_EXITCODE(0, SIGKILL), 1, "Process does not exit normally!\n"},
    };
    for (const Case& c : cases) {
        CaptureStderr();
        popen3_streams child = popen3(c.command);
        // Both outputs read to their end first: a child writing into a pipe
        // that is already closed would die of SIGPIPE instead.
        (void)waste_stream(child.child_out);
        (void)waste_stream(child.child_err);
        const int status = pclose3(child);
        const int printResult = print_exit_code(status);
        const std::string err = GetCapturedStderr();
        EXPECT_EQ(status, c.status) << c.command;
        EXPECT_EQ(printResult, c.printResult) << c.command;
        EXPECT_NE(err.find(c.report), std::string::npos) << c.command << ": " << err;
    }
    EXPECT_TRUE(noChildren());

    EXPECT_EQ(pclose3(popen3_streams{nullptr, nullptr, nullptr}), -1);
    FILE* unrelated = tmpfile();
    EXPECT_EQ(pclose3(popen3_streams{unrelated, nullptr, nullptr}), -1);
    EXPECT_NE(fcntl(fileno(unrelated), F_GETFD), -1);  // not closed
    fclose(unrelated);
}

TEST(Popen3, ChildSeesOnlyItsStandardDescriptors) {
    // Opened without close-on-exec, as libcurl opens its sockets; and a
    // running sibling whose pipe ends the parent holds.
    const int inheritedFile = open("/dev/null", O_RDONLY);
    const int inheritedSocket = socket(AF_INET, SOCK_STREAM, 0);
    CaptureStderr();
    popen3_streams sibling = popen3("cat");
    popen3_streams lister = popen3("ls /proc/$$/fd");
    char listing[64];
    EXPECT_EQ(fgets_some(listing, sizeof listing, lister.child_out), 0);
    EXPECT_EQ(pclose3(lister), 0);
    EXPECT_EQ(pclose3(sibling), 0);
    (void)GetCapturedStderr();
    close(inheritedFile);
    close(inheritedSocket);

    EXPECT_EQ(printed(listing, sizeof listing), "0\n\n1\n\n2\n\n");
}

TEST(Popen3, TableIsCreatedOnceUnderConcurrentFirstCalls) {
    // A fresh process (the threadsafe death-test style re-runs the binary),
    // so these really are the process's first popen3 calls.
    EXPECT_EXIT(
        {
            std::atomic<bool> go{false};
            std::atomic<int> good{0};
            std::vector<std::thread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] {
                    while (!go.load()) std::this_thread::yield();
                    popen3_streams child = popen3("echo hi");
                    char out[16];
                    if (fgets_some(out, sizeof out, child.child_out) == 0 && std::string(out) == "hi\n" &&
                        pclose3(child) == 0)
                        ++good;
                });
            }
            go = true;
            for (auto& thread : threads) thread.join();
            std::_Exit(good == 8 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(Popen3, FailedPipeLeaksNoDescriptor) {
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    const size_t before = openDescriptors();
    // Room for no pipe, for none of the three, for one, for two: every
    // number below a lowered limit taken, then `freeSlots` given back.
    for (int freeSlots : {0, 1, 3, 5}) {
        rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>(before + 64);
        setrlimit(RLIMIT_NOFILE, &tight);
        std::vector<int> fillers;
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);
        for (int i = 0; i < freeSlots; ++i, fillers.pop_back()) close(fillers.back());
        popen3_streams child = popen3("true");
        EXPECT_TRUE(child.child_in == nullptr && child.child_out == nullptr && child.child_err == nullptr)
            << freeSlots;
        for (int fd : fillers) close(fd);
        setrlimit(RLIMIT_NOFILE, &saved);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ExtractScript, FloodedOutputsNeitherStallNorLeak) {
    TrustStoreSandbox sandbox;
    LogCapture log;
    const std::string command =
        std::string(truststore_paths::kExtractScript) + " " + truststore_paths::kRootSigningCert + " in.p7b out.pem";
    // Far more than a pipe holds on stderr before stdout is closed: read one
    // stream after the other, this would stall until the time limit kills
    // the script.
    sandbox.installScript(floodOf(2000, 2) + "\necho first out\n" + floodOf(2000, 1) + "\nexec >&-\nexit 0");
    CaptureStderr();
    EXPECT_EQ(sandbox.store().ExtractCa("in.p7b", "out.pem"), 0);
    (void)GetCapturedStderr();
    EXPECT_EQ(log.count(command + " stdout: first out"), 1u);
    EXPECT_EQ(log.count(command + " stderr: line 0 " + std::string(50, '.')), 1u);

    sandbox.installScript("exit 0");
    const size_t before = openDescriptors();
    int failed = 0;
    CaptureStderr();
    for (int run = 0; run < 100; ++run) failed += sandbox.store().ExtractCa("in.p7b", "out.pem") != 0;
    (void)GetCapturedStderr();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(noChildren());
}

TEST(ExtractScript, FailedOrHungScriptFailsTheRefreshAndIsReaped) {
    TrustStoreSandbox sandbox;
    sandbox.serveBundle(TrustStoreSandbox::makeBundle({TestPki::instance().file("ca.pem")}));
    struct Case {
        const char* what;
        const char* script;  // null: none installed
        const char* report;  // on stderr; null: depends on the shell
        bool hung;
    };
    const Case cases[] = {
        {"non-zero exit", "echo broken >&2; exit 1", "Exit code: 1\n", false},
        {"killed by a signal", "kill -9 $$", nullptr, false},
        {"missing", nullptr, "Exit code: 127\n", false},
        {"hung", "exec sleep 600", "Process does not exit normally!\n", true},
        {"hung with its outputs closed", "exec >&- 2>&-\nexec sleep 600", "Process does not exit normally!\n", true},
    };
    for (const Case& c : cases) {
        LogCapture log;
        if (c.script != nullptr) {
            sandbox.installScript(c.script);
        } else {
            fs::remove(truststore_paths::kExtractScript);
        }
        CaptureStderr();
        const auto start = std::chrono::steady_clock::now();
        refreshCaBundle();
        const auto took = std::chrono::steady_clock::now() - start;
        const std::string err = GetCapturedStderr();

        EXPECT_EQ(sandbox.status(), 3) << c.what;
        EXPECT_EQ(log.count(" failed to extract CA"), 1u) << c.what;
        EXPECT_TRUE(sandbox.store().ca_file.empty()) << c.what;
        if (c.report != nullptr) {
            EXPECT_NE(err.find(c.report), std::string::npos) << c.what << ": " << err;
        }
        EXPECT_EQ(log.countContaining("still running after 5000 ms, killed"), c.hung ? 1u : 0u) << c.what;
        EXPECT_LT(took, 30s) << c.what;
        EXPECT_TRUE(noChildren()) << c.what;
    }
}
