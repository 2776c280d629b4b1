// ExtractCa: runs the extraction script through popen3 and collects its
// standard output and error into two bounded buffers.
//
// Both streams are read as data arrives (poll), not one after the other: a
// script that fills its stderr pipe before it closes stdout must not stall
// the refresh, which holds the CA file's write lock meanwhile. The buffers
// end up exactly as fgets_some would have filled them, and the same
// diagnostics go to stderr.
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <string>

#include "truststore/child_process.h"
#include "truststore/process_tree.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"
#include "truststore/unique_fd.h"
#include "util/callback_barrier.h"
#include "util/log.h"
#include "util/sigpipe_shield.h"
#include "webclient/ca_bundle.h"
#include "webclient/popen3.h"

namespace {

using Clock = std::chrono::steady_clock;
using truststore::UniqueFd;

constexpr int kOutputBufferSize = 4096;
// Without a pidfd the child's exit can only be noticed by asking again.
constexpr int kExitCheckIntervalMs = 50;


// Fills a buffer in fgets_some's format from bytes that arrive in pieces:
// one NUL-terminated string per line, a line longer than the room left
// split as fgets would split it, and everything after a full buffer dropped.
class LineCollector {
public:
    LineCollector(char* buffer, int size, int fd) : buffer_(buffer), size_(size), fd_(fd) {
        webclient::printToStderr("fd: %d\n", fd_);
    }

    void append(const char* data, size_t length) {
        for (size_t i = 0; i < length && !full_; ++i) {
            buffer_[start_ + length_++] = data[i];
            if (data[i] == '\n' || length_ == room() - 1) closeString();
        }
    }

    void endOfStream() {
        // fgets_some's loop also fills a last byte of room with a NUL here,
        // but it sees the end of the stream before it could call it full.
        if (length_ > 0 && !full_) closeString(true);
        webclient::printToStderr("fgets reach stream EOF\n");
    }

    void readError() { webclient::printToStderr("fgets got an error: %d\n", 1); }

private:
    int room() const { return size_ - start_; }

    void closeString(bool atEnd = false) {
        const size_t increase = static_cast<size_t>(length_) + 1;
        start_ += length_ + 1;
        length_ = 0;
        webclient::printToStderr("fgets ok. increase: %zu remain: %d\n", increase, room());
        // fgets with a room of 1 stores just the NUL; that inner close
        // reports the full buffer itself.
        if (room() == 1) {
            closeString(atEnd);
            return;
        }
        if (room() == 0 && !atEnd) markFull();
    }

    void markFull() {
        full_ = true;
        webclient::printToStderr("Buffer full. Waste stream.\n");
        webclient::printToStderr("fd: %d\n", fd_);
    }

    char* buffer_;
    int size_;
    int fd_;
    int start_ = 0;   // where the string being filled starts
    int length_ = 0;  // its characters so far (the buffer's zeros end it)
    bool full_ = false;
};

struct StreamReader {
    StreamReader(FILE* stream, char* buffer)
        : fd(fileno(stream)), collector(buffer, kOutputBufferSize, fd), done(false) {}

    int fd;
    LineCollector collector;
    bool done;

    // Reads what is there; done at end of stream or on an error.
    void readAvailable() {
        char chunk[kOutputBufferSize];
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got > 0) {
            collector.append(chunk, static_cast<size_t>(got));
        } else if (got == 0) {
            collector.endOfStream();
            done = true;
        } else if (errno != EINTR && errno != EAGAIN) {
            collector.readError();
            done = true;
        }
    }
};

// The exit status as seen before pclose3 reaps the child. A host that
// ignores SIGCHLD, or reaps every child itself, may take the child first;
// pclose3 then reports 0, so only what was seen here may count.
struct SeenExit {
    bool seen = false;
    int status = 0;  // in waitpid's form
};

// Whether the child has exited, without reaping it: pclose3 does that.
bool childExited(pid_t pid, SeenExit& seen) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return true;
    if (info.si_pid != pid) return false;
    seen.seen = true;
    seen.status = info.si_code == CLD_EXITED ? W_EXITCODE(info.si_status, 0)
                                             : (info.si_status | (info.si_code == CLD_DUMPED ? WCOREFLAG : 0));
    return true;
}

int millisecondsLeft(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() <= 0 ? 0 : static_cast<int>(std::min<long long>(left.count(), 60000));
}

// Reads both streams until both have ended and the child has exited, or
// until the deadline. False when the deadline passed first.
bool collectUntilExit(pid_t pid, StreamReader& out, StreamReader& err, Clock::time_point deadline,
                      SeenExit& seen) {
    UniqueFd pidFd(truststore::openPidFd(pid));
    bool exited = false;
    while (!(out.done && err.done && exited)) {
        const int left = millisecondsLeft(deadline);
        if (left == 0) return false;
        pollfd fds[3];
        nfds_t count = 0;
        for (StreamReader* reader : {&out, &err})
            if (!reader->done) fds[count++] = pollfd{reader->fd, POLLIN, 0};
        if (!exited && pidFd.valid()) fds[count++] = pollfd{pidFd.get(), POLLIN, 0};
        const int wait = (exited || pidFd.valid()) ? left : std::min(left, kExitCheckIntervalMs);
        if (::poll(fds, count, wait) < 0 && errno != EINTR) return false;
        for (nfds_t i = 0; i < count; ++i) {
            if (fds[i].revents == 0) continue;
            if (fds[i].fd == out.fd && !out.done) out.readAvailable();
            if (fds[i].fd == err.fd && !err.done) err.readAvailable();
        }
        if (!exited) exited = childExited(pid, seen);
    }
    return true;
}

// A script still running at its deadline gets this long to end after
// SIGTERM before it is killed.
constexpr int kTerminateGraceMs = 1000;

// The shipped script makes its temporary file as ".ca-bundle.XXXXXX" beside
// the CA file and removes it when asked to end; a script killed after the
// grace period, one whose mktemp was ended between making the file and
// naming it, or one ended with its host (a kill, a power cut) leaves it on
// the flash for good. Only files last written longer ago than `ageSeconds`
// go: another process's extraction may be running beside this one's.
void removeLeftoverTemporaryFiles(std::string const& output, time_t ageSeconds) {
    namespace fs = std::filesystem;
    const time_t now = std::time(nullptr);
    std::error_code listing;
    for (fs::directory_iterator entry(fs::path(output).parent_path(), listing), end; !listing && entry != end;
         entry.increment(listing)) {
        struct stat info;
        if (entry->path().filename().string().rfind(".ca-bundle.", 0) != 0) continue;
        if (::lstat(entry->path().c_str(), &info) != 0) continue;
        if (ageSeconds > 0 && now - info.st_mtime < ageSeconds) continue;
        std::error_code ignored;
        fs::remove(entry->path(), ignored);
    }
}

// No extraction, in this process or another, runs longer than its limit
// and grace; twice that leaves room for a slow start.
time_t staleTemporaryFileAge() {
    return static_cast<time_t>(2 * (truststore_paths::kExtractScriptTimeoutMs + kTerminateGraceMs) / 1000);
}

std::string extractCommand(std::string const& bundle, std::string const& output) {
    return std::string(truststore_paths::kExtractScript) + " " + truststore_paths::kRootSigningCert + " " +
           bundle + " " + output;
}

// Reads the child's two streams into the buffers until it exits or the
// deadline passes (false then).
bool collectOutput(pid_t pid, popen3_streams const& streams, char* outBuffer, char* errBuffer,
                   Clock::time_point deadline, SeenExit& seenExit) {
    StreamReader out(streams.child_out, outBuffer);
    StreamReader err(streams.child_err, errBuffer);
    return collectUntilExit(pid, out, err, deadline, seenExit);
}

// Ends and reaps the child and closes its streams when the extraction is
// left by an exception (memory running out while the process tree is
// searched, say). What the child started is found from the child, so a
// script already handed to init (its shell ended by the time limit's
// SIGTERM before the exception) lives on.
class ChildGuard {
public:
    ChildGuard(popen3_streams& streams, pid_t pid) : streams_(streams), pid_(pid) {}
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;
    ~ChildGuard() {
        if (pid_ == 0) return;
        try {
            truststore::endProcessTree(pid_, 0);
        } catch (...) {
            truststore::killChild(pid_);  // the search needs memory; this does not
        }
        (void)pclose3(streams_);
    }

    // The normal end: pclose3's wait status.
    int close() {
        pid_ = 0;
        return pclose3(streams_);
    }

private:
    popen3_streams& streams_;
    pid_t pid_;
};

int runExtraction(std::string const& bundle, std::string const& output) {
    const std::string command = extractCommand(bundle, output);
    const long long limitMs = truststore_paths::kExtractScriptTimeoutMs;
    removeLeftoverTemporaryFiles(output, staleTemporaryFileAge());
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    popen3_streams streams = popen3(command.c_str());
    const pid_t pid = truststore::popen3_child_pid(streams);
    if (pid == 0) WC_LOG_ERROR("[ExtractCa] cannot start %s: %s", command.c_str(), std::strerror(errno));
    ChildGuard child(streams, pid);
    char outBuffer[kOutputBufferSize] = {};
    char errBuffer[kOutputBufferSize] = {};
    SeenExit seenExit;
    // With no child there is nothing to read; the report below is made all
    // the same, and pclose3 answers -1.
    const bool finished = pid == 0 || collectOutput(pid, streams, outBuffer, errBuffer, deadline, seenExit);
    if (!finished) {
        WC_LOG_ERROR("[ExtractCa] %s still running after %lld ms, killed", command.c_str(), limitMs);
        truststore::endProcessTree(pid, kTerminateGraceMs);
    }
    WC_LOG_DEBUG("%s stdout: %s\n", command.c_str(), outBuffer);
    WC_LOG_DEBUG("%s stderr: %s\n", command.c_str(), errBuffer);

    const int status = child.close();
    (void)print_exit_code(status);
    if (!finished) removeLeftoverTemporaryFiles(output, 0);
    // A success pclose3 could not see for itself needs the seen exit; an
    // unknown verdict is no verification.
    if (finished && status == 0 && !(seenExit.seen && seenExit.status == 0)) {
        WC_LOG_ERROR("[ExtractCa] %s was reaped elsewhere: counted as failed", command.c_str());
        return seenExit.seen ? seenExit.status : -1;
    }
    // A script cut off at the deadline did not finish its job, even if the
    // shell itself had already exited.
    return (!finished && status == 0) ? SIGKILL : status;
}

}  // namespace

int CaBundleManager::ExtractCa(std::string const& bundle, std::string const& output) {
    return webclient::resultOrOnException("ExtractCa", -1, [&] { return runExtraction(bundle, output); });
}
