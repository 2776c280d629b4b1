// Ends a child of popen3 and every process below it. `sh -c` starts the
// command as its own child, and a script starts further programs: killing
// the shell alone would leave a hung program running for good.
#include "truststore/process_tree.h"

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "truststore/unique_fd.h"

namespace truststore {

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

namespace {

// 0, or -1 with errno set (ENOSYS where the kernel has no pidfds).
int sendThroughPidFd(int pidFd, int sig) {
#ifdef SYS_pidfd_send_signal
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidFd, sig, nullptr, 0));
#else
    (void)pidFd;
    (void)sig;
    errno = ENOSYS;
    return -1;
#endif
}

// A process as /proc/<pid>/stat shows it: its parent, and its start time
// (clock ticks after boot), which tells a process from a later one that
// was given the same pid.
struct ProcessStat {
    pid_t pid = 0;
    pid_t parent = 0;
    unsigned long long started = 0;
    bool ended = false;  // a zombie, waiting to be reaped
};

bool sameProcess(const ProcessStat& a, const ProcessStat& b) { return a.pid == b.pid && a.started == b.started; }

// Read whole, with a close-on-exec descriptor: a host thread may fork and
// exec at any moment, and its child must not inherit the library's files.
std::string contentsOf(const std::string& path) {
    struct Closer {
        void operator()(FILE* file) const noexcept { (void)std::fclose(file); }
    };
    std::unique_ptr<FILE, Closer> file(std::fopen(path.c_str(), "re"));
    std::string contents;
    if (!file) return contents;
    for (int c = std::getc(file.get()); c != EOF; c = std::getc(file.get())) contents.push_back(static_cast<char>(c));
    return contents;
}

// "pid (comm) state ppid ... starttime ...": comm may hold spaces,
// parentheses and even a line break, so the fields are counted after the
// last ')'.
bool readProcessStat(const char* pidText, ProcessStat& stat) {
    const std::string line = contentsOf(std::string("/proc/") + pidText + "/stat");
    const size_t close = line.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream fields(line.substr(close + 1));
    std::string state;
    long long parent = 0;
    fields >> state >> parent;
    std::string skipped;
    for (int field = 5; field < 22 && fields; ++field) fields >> skipped;  // pgrp .. itrealvalue
    fields >> stat.started;
    stat.pid = static_cast<pid_t>(std::atoi(pidText));
    stat.parent = static_cast<pid_t>(parent);
    stat.ended = state == "Z";
    return static_cast<bool>(fields) && stat.pid > 0;
}

// Whether `process` still runs: its pid names the process that was found,
// and that has not ended. One whose status cannot be read any more has
// ended and been reaped.
bool stillRuns(const ProcessStat& process) {
    ProcessStat now;
    const std::string pidText = std::to_string(process.pid);
    return readProcessStat(pidText.c_str(), now) && sameProcess(now, process) && !now.ended;
}

// Signals `process` if it still runs. The pidfd is opened before the check,
// so the signal cannot reach a later process that was given the same pid.
void signalIfStillRuns(const ProcessStat& process, int sig) {
    const UniqueFd pidFd(openPidFd(process.pid));
    if (!stillRuns(process)) return;
    if (!pidFd.valid() || (sendThroughPidFd(pidFd.get(), sig) != 0 && errno == ENOSYS)) {
        (void)kill(process.pid, sig);
    }
}

// Every process in /proc. Empty when /proc cannot be read (no descriptor
// left, not mounted).
std::map<pid_t, ProcessStat> allProcesses() {
    std::map<pid_t, ProcessStat> all;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    while (proc) {
        const dirent* entry = readdir(proc.get());
        if (entry == nullptr) break;
        ProcessStat stat;
        if (readProcessStat(entry->d_name, stat)) all.emplace(stat.pid, stat);
    }
    return all;
}

// Whether `process` is in `all` and has not ended there.
bool runsIn(const std::map<pid_t, ProcessStat>& all, const ProcessStat& process) {
    const auto found = all.find(process.pid);
    return found != all.end() && sameProcess(found->second, process) && !found->second.ended;
}

// The root, our unreaped child, and the processes found below it. Searched
// again and again while the tree ends: a process started after the last
// search is found below its parent, and one whose parent ended (and which
// was handed to another parent) stays known.
class ProcessTree {
public:
    explicit ProcessTree(pid_t root) : root_(root), rootFd_(openPidFd(root)) {}

    // Whether the root is still our child, running or unreaped: a host
    // that ignores SIGCHLD has it reaped as it exits. Asked after the pidfd
    // was opened, so the pidfd names the same process.
    bool rootIsOurs() const {
        siginfo_t info = {};
        return peekAtRoot(info);
    }

    bool rootEnded() const {
        siginfo_t info = {};
        return !peekAtRoot(info) || info.si_pid == root_;
    }

    // Searches /proc once more; whether any process below the root still runs.
    bool searchAgain() {
        const std::map<pid_t, ProcessStat> all = allProcesses();
        std::vector<pid_t> parents;
        if (!rootEnded()) parents.push_back(root_);
        bool anyRuns = false;
        for (const ProcessStat& known : descendants_) {
            if (!runsIn(all, known)) continue;
            parents.push_back(known.pid);
            anyRuns = true;
        }
        for (size_t i = 0; i < parents.size(); ++i) {
            for (const auto& entry : all) {
                const ProcessStat& child = entry.second;
                if (child.parent != parents[i] || isKnown(child)) continue;
                descendants_.push_back(child);
                parents.push_back(child.pid);
                anyRuns = anyRuns || !child.ended;
            }
        }
        return anyRuns;
    }

    // Descendants that still run, deepest first, then the root: the root
    // is signalled even when /proc cannot be read, so a hung child always
    // ends.
    void signal(int sig) const {
        for (auto process = descendants_.rbegin(); process != descendants_.rend(); ++process) {
            signalIfStillRuns(*process, sig);
        }
        signalRoot(sig);
    }

    // Through the pidfd where there is one: it names our child even if the
    // host reaps it meanwhile.
    void signalRoot(int sig) const {
        if (rootFd_.valid() && (sendThroughPidFd(rootFd_.get(), sig) == 0 || errno != ENOSYS)) return;
        if (rootIsOurs()) (void)kill(root_, sig);
    }

private:
    // Whether the root is our child; `info` tells whether it has exited.
    bool peekAtRoot(siginfo_t& info) const {
        return waitid(P_PID, static_cast<id_t>(root_), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
    }

    bool isKnown(const ProcessStat& process) const {
        return std::any_of(descendants_.begin(), descendants_.end(),
                           [&](const ProcessStat& known) { return sameProcess(known, process); });
    }

    pid_t root_;
    UniqueFd rootFd_;
    std::vector<ProcessStat> descendants_;  // parents before children
};

constexpr int kTickMs = 10;

}  // namespace

void killChild(pid_t root) {
    const ProcessTree tree(root);
    if (tree.rootIsOurs()) tree.signalRoot(SIGKILL);
}

// Asked first, so that a script can clean up after itself (the extraction
// script removes its temporary file from the CA directory; a SIGKILL left
// one there on every timed-out refresh). Processes started during the
// grace period are only killed: they are the script's own clean-up.
void endProcessTree(pid_t root, int graceMs) {
    ProcessTree tree(root);
    if (!tree.rootIsOurs()) return;
    tree.searchAgain();
    tree.signal(SIGTERM);
    // A deadline, not a count of ticks: a search of a crowded /proc takes
    // time of its own.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
    while (std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kTickMs));
        if (!tree.searchAgain() && tree.rootEnded()) return;
    }
    tree.searchAgain();
    tree.signal(SIGKILL);
}

}  // namespace truststore
