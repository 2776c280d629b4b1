// The child-process pipe functions against real children of /bin/sh.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "truststore/process_probe.h"
#include "truststore/stderr_capture.h"
#include "webclient/popen3.h"

namespace {

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

// Reads both outputs to their end first: a child writing into a pipe that
// is already closed would die of SIGPIPE instead.
int drainAndClose(popen3_streams child) {
    (void)waste_stream(child.child_out);
    (void)waste_stream(child.child_err);
    return pclose3(child);
}

// Leaves exactly `freeSlots` descriptor numbers available (RLIMIT_NOFILE
// lowered, every hole below filled) until destroyed.
class DescriptorSqueeze {
public:
    explicit DescriptorSqueeze(int freeSlots) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit tight = saved_;
        tight.rlim_cur = static_cast<rlim_t>(fill() + 64);
        setrlimit(RLIMIT_NOFILE, &tight);
        while (fill() >= 0) {
        }
        for (int i = 0; i < freeSlots; ++i, fillers_.pop_back()) close(fillers_.back());
    }
    ~DescriptorSqueeze() {
        for (int fd : fillers_) close(fd);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    int fill() {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) fillers_.push_back(fd);
        return fd;
    }

    rlimit saved_{};
    std::vector<int> fillers_;
};

}  // namespace

TEST(Popen3, ReadsLinesIntoBufferAndTracesOnStderr) {
    StderrCapture err;
    popen3_streams child = popen3("printf 'one\\ntwo\\n'; printf 'oops\\n' >&2");
    const int outFd = fileno(child.child_out);
    char out[64], errors[16], nothing[8], untouched[4] = {'a', 'b', 'c', 'd'};
    memset(out, 'x', sizeof out);
    memset(nothing, 'x', sizeof nothing);
    EXPECT_EQ(fgets_some(out, sizeof out, child.child_out), 0);
    EXPECT_EQ(fgets_some(errors, sizeof errors, child.child_err), 0);
    EXPECT_EQ(pclose3(child), 0);
    popen3_streams silent = popen3("true");
    EXPECT_EQ(fgets_some(nothing, sizeof nothing, silent.child_out), 0);
    EXPECT_EQ(pclose3(silent), 0);
    EXPECT_EQ(fgets_some(untouched, sizeof untouched, nullptr), 1);
    err.restore();

    EXPECT_EQ(std::string(out, sizeof out), std::string("one\n\0two\n\0", 10) + std::string(54, '\0'));
    EXPECT_EQ(std::string(errors), "oops\n");
    EXPECT_EQ(std::string(nothing, sizeof nothing), std::string(8, '\0'));
    EXPECT_EQ(std::string(untouched, 4), "abcd");
    EXPECT_NE(err.text().find("fd: " + std::to_string(outFd) +
                              "\nfgets ok. increase: 5 remain: 59\nfgets ok. increase: 5 remain: 54\n"
                              "fgets reach stream EOF\n"),
              std::string::npos)
        << err.text();
    // Lines that kept their newline come out followed by an empty line.
    EXPECT_EQ(printed(out, sizeof out), "one\n\ntwo\n\n");
}

TEST(Popen3, FullBufferKeepsFirstPartAndDrainsTheRest) {
    // Far more than a pipe holds: the child finishes only if it is drained.
    const char* command = "i=0; while [ $i -lt 20000 ]; do echo abcdefghij; i=$((i+1)); done; exit 3";
    StderrCapture err;
    char out[16], tight[13];  // with 13 the first line leaves a room of exactly 1
    popen3_streams child = popen3(command);
    EXPECT_EQ(fgets_some(out, sizeof out, child.child_out), 0);
    const int status = pclose3(child);
    child = popen3(command);
    EXPECT_EQ(fgets_some(tight, sizeof tight, child.child_out), 0);
    (void)pclose3(child);
    err.restore();

    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    // A line longer than the room left is split as fgets splits it.
    EXPECT_EQ(std::string(out, sizeof out), std::string("abcdefghij\n\0abc\0", 16));
    EXPECT_EQ(std::string(tight, sizeof tight), std::string("abcdefghij\n\0\0", 13));
    EXPECT_EQ(err.count("fgets ok. increase: 12 remain: 4\nfgets ok. increase: 4 remain: 0\n"
                        "Buffer full. Waste stream.\nfd: "),
              1u)
        << err.text();
    EXPECT_EQ(err.count("fgets ok. increase: 12 remain: 1\nfgets ok. increase: 1 remain: 0\n"), 1u);
}

TEST(Popen3, ReportsExitStatusesAndIgnoresUnknownStreams) {
    StderrCapture err;
    const int missing = drainAndClose(popen3("/nonexistent/command"));
    const int killed = drainAndClose(popen3("kill -9 $$"));
    EXPECT_EQ(print_exit_code(missing), 0);
    EXPECT_EQ(print_exit_code(killed), 1);
    EXPECT_EQ(print_exit_code(256), 0);
    err.restore();
    EXPECT_EQ(missing, 127 << 8);
    ASSERT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), SIGKILL);
    EXPECT_EQ(err.count("Exit code: 127\nProcess does not exit normally!\nExit code: 1\n"), 1u) << err.text();

    EXPECT_EQ(pclose3(popen3_streams{nullptr, nullptr, nullptr}), -1);
    FILE* unrelated = tmpfile();
    EXPECT_EQ(pclose3(popen3_streams{unrelated, nullptr, nullptr}), -1);
    EXPECT_NE(fcntl(fileno(unrelated), F_GETFD), -1);  // not closed
    fclose(unrelated);
}

TEST(Popen3, ChildSeesOnlyItsStandardDescriptors) {
    // Opened without close-on-exec, as libcurl opens its sockets.
    const int inheritedFile = open("/dev/null", O_RDONLY);
    const int inheritedSocket = socket(AF_INET, SOCK_STREAM, 0);
    StderrCapture err;
    popen3_streams first = popen3("cat");
    popen3_streams second = popen3("cat");
    popen3_streams lister = popen3("ls /proc/$$/fd");
    char listing[64], echoed[8];
    EXPECT_EQ(fgets_some(listing, sizeof listing, lister.child_out), 0);
    EXPECT_EQ(pclose3(lister), 0);
    // Only if no sibling holds first's input does first see end of file.
    fclose(first.child_in);
    first.child_in = nullptr;
    pollfd output{fileno(first.child_out), POLLIN, 0};
    EXPECT_EQ(poll(&output, 1, 10000), 1);
    EXPECT_EQ(fgets_some(echoed, sizeof echoed, first.child_out), 0);
    EXPECT_EQ(pclose3(first), 0);
    EXPECT_EQ(pclose3(second), 0);
    err.restore();
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
    const size_t before = countOpenDescriptors();
    // Room for no pipe, for none of the three, for one, for two.
    for (int freeSlots : {0, 1, 3, 5}) {
        DescriptorSqueeze squeeze(freeSlots);
        popen3_streams child = popen3("true");
        EXPECT_TRUE(child.child_in == nullptr && child.child_out == nullptr && child.child_err == nullptr)
            << freeSlots;
    }
    EXPECT_EQ(countOpenDescriptors(), before);
}
