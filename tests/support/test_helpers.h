// Small helpers shared by the test binaries.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "webclient/web_request.h"

// What a data or header callback received. Read it only after the
// request's wait has returned: completion orders the callbacks before it.
struct Collected {
    std::string text;
    double contentLength = 0;  // offered with the last piece (-1.0 unknown)
    bool onOtherThread = false;
    DataReceivedCallback callback() {
        return [this, caller = std::this_thread::get_id()](std::shared_ptr<DataReceivedEventArgs> args) {
            text.append(args->data, static_cast<size_t>(args->size));
            contentLength = args->content_length;
            onOtherThread |= std::this_thread::get_id() != caller;
        };
    }
};

// For verbs whose header lines or data a test has no use for (never filled).
inline std::vector<std::string> noHeaders;
inline void ignore(std::shared_ptr<DataReceivedEventArgs>) {}

// A file with the given contents, removed when the object goes.
class TempFile {
public:
    explicit TempFile(const std::string& contents = std::string()) {
        char name[] = "/tmp/webclient-test-XXXXXX";
        const int fd = mkstemp(name);
        path_ = name;
        if (fd >= 0) {
            if (!contents.empty()) (void)!write(fd, contents.data(), contents.size());
            close(fd);
        }
    }
    ~TempFile() { std::remove(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Points descriptor `target` at `replacement` (which it takes over) for the
// object's lifetime.
class RedirectedDescriptor {
public:
    RedirectedDescriptor(int target, int replacement) : target_(target), saved_(dup(target)) {
        if (replacement < 0) return;
        dup2(replacement, target);
        close(replacement);
    }
    ~RedirectedDescriptor() {
        dup2(saved_, target_);
        close(saved_);
    }
    RedirectedDescriptor(const RedirectedDescriptor&) = delete;
    RedirectedDescriptor& operator=(const RedirectedDescriptor&) = delete;

private:
    int target_;
    int saved_;
};

// The read end of a pipe that holds `data` and is closed for writing.
inline int pipeHolding(const std::string& data) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    (void)!write(fds[1], data.data(), data.size());
    close(fds[1]);
    return fds[0];
}

// Standard input holding `data`: a body-less POST must not send what libcurl
// would read from it.
struct StdinWithData : RedirectedDescriptor {
    explicit StdinWithData(const std::string& data) : RedirectedDescriptor(STDIN_FILENO, pipeHolding(data)) {}
};

// Standard error discarded: child-process diagnostics that a test provokes
// on purpose would only bury the test's own output.
struct QuietStderr : RedirectedDescriptor {
    QuietStderr() : RedirectedDescriptor(STDERR_FILENO, open("/dev/null", O_WRONLY | O_CLOEXEC)) {}
};

// Reads a whole file; empty when it cannot be read.
std::string readWholeFile(const std::string& path);

// The process's locale switched to Turkish, where tolower('I') is not 'i',
// for the object's life (made with localedef into a temporary directory).
// setlocale and setenv are not safe beside threads that read the locale or
// the environment: switch while the process's other threads are idle (no
// request under way).
class TurkishLocale {
public:
    TurkishLocale();
    ~TurkishLocale();
    TurkishLocale(const TurkishLocale&) = delete;
    TurkishLocale& operator=(const TurkishLocale&) = delete;
    bool active() const { return active_; }

private:
    bool active_;
};

// Runs a GET to its end through WebRequest: the HTTP status, or -1 when the
// wait ran out.
long completeGet(const std::string& url);
// Runs a GET on `request` to its end (a wait of at most 10 s): libcurl's result.
CURLcode resultOfGet(WebRequest& request);

// A stdio stream on `path` (mode as for fopen), closed with the last owner;
// empty when it cannot be opened (a shared_ptr would hand fclose a null).
inline std::shared_ptr<FILE> openForWriting(const std::string& path, const char* mode = "w+") {
    FILE* file = std::fopen(path.c_str(), mode);
    return file ? std::shared_ptr<FILE>(file, std::fclose) : nullptr;
}

// This process's open descriptors: number -> what it refers to.
std::map<int, std::string> openDescriptors();

// Waits (up to about two seconds) until every other thread of this process
// is asleep. The sanitizers' allocators here are not fork-safe: a child
// forked while another thread is inside malloc finds its lock held for
// good and hangs in its first allocation or its exit-time leak check. A
// test whose forked child allocates forks from a quiet process: that makes
// such a hang unlikely, not impossible (a thread may wake just before the
// fork), so the child also sets an alarm.
void waitUntilOtherThreadsSleep();
