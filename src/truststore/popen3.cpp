// popen3/pclose3: a shell command with all three standard streams on pipes,
// and the process-wide table that maps parent-side pipe ends to children.
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "truststore/child_process.h"
#include "truststore/unique_fd.h"
#include "util/lock_guard.h"
#include "util/sigpipe_shield.h"
#include "util/standard_descriptors.h"
#include "webclient/popen3.h"

namespace {

using truststore::UniqueFd;
using utilities::lock::lock_guard;

// Created once per process by ensureChildTable(), never freed.
pthread_once_t child_table_once = PTHREAD_ONCE_INIT;
pthread_mutex_t child_table_mutex;
pid_t* child_of_fd = nullptr;   // guarded by child_table_mutex
int child_table_size = 0;       // guarded by child_table_mutex
bool child_table_made = false;  // written once inside pthread_once

void createChildTable() {
    pthread_mutex_init(&child_table_mutex, nullptr);
    const int size = getdtablesize();
    if (size <= 0) return;
    child_of_fd = static_cast<pid_t*>(std::calloc(static_cast<size_t>(size), sizeof(pid_t)));
    if (child_of_fd != nullptr) child_table_size = size;
    child_table_made = child_of_fd != nullptr;
}

// False when the table could not be allocated.
bool ensureChildTable() {
    pthread_once(&child_table_once, createChildTable);
    return child_table_made;
}

// Caller holds child_table_mutex.
bool inTable(int fd) { return fd > 0 && fd < child_table_size; }

// Grows the table to hold `fd`: the host may raise its descriptor limit
// after the first popen3, and a pipe numbered above the old limit must not
// make every later extraction fail. Caller holds child_table_mutex.
bool makeRoomFor(int fd) {
    if (fd <= 0 || inTable(fd)) return fd > 0;
    // Doubling, not the descriptor limit: a limit of 2^30 would commit gigabytes.
    const int size = std::max(fd + 1, 2 * child_table_size);
    void* grown = std::realloc(child_of_fd, static_cast<size_t>(size) * sizeof(pid_t));
    if (grown == nullptr) return false;
    child_of_fd = static_cast<pid_t*>(grown);
    std::fill(child_of_fd + child_table_size, child_of_fd + size, 0);
    child_table_size = size;
    return true;
}

// Caller holds child_table_mutex.
pid_t lookUpChild(const popen3_streams& streams) {
    for (FILE* stream : {streams.child_in, streams.child_out, streams.child_err}) {
        if (stream == nullptr) continue;
        const int fd = fileno(stream);
        if (inTable(fd) && child_of_fd[fd] != 0) return child_of_fd[fd];
    }
    return 0;
}

struct FileCloser {
    void operator()(FILE* stream) const noexcept { (void)std::fclose(stream); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

bool makePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
    // Close-on-exec, so that children started elsewhere in the process
    // (system(), other popen3 calls racing with this one) never inherit them.
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

// A host without open standard streams hands out 0..2 for pipes; the
// child's dup2 onto 0..2 would then clobber its own pipe ends.
bool liftAboveStdio(UniqueFd& fd) {
    if (fd.get() > STDERR_FILENO) return true;
    const int lifted = fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (lifted < 0) return false;
    fd.reset(lifted);
    return true;
}

struct ChildPipes {
    UniqueFd inRead, inWrite, outRead, outWrite, errRead, errWrite;

    bool open() {
        // Lifted below, but a line written to standard error meanwhile
        // would land in a pipe made on a free 2.
        webclient::occupyFreeStandardDescriptors();
        if (!makePipe(inRead, inWrite) || !makePipe(outRead, outWrite) ||
            !makePipe(errRead, errWrite))
            return false;
        for (UniqueFd* end : {&inRead, &inWrite, &outRead, &outWrite, &errRead, &errWrite})
            if (!liftAboveStdio(*end)) return false;
        return true;
    }
};

FilePtr adoptStream(UniqueFd& fd, const char* mode) {
    FilePtr stream(fdopen(fd.get(), mode));
    if (stream) (void)fd.release();  // the stream owns it now
    return stream;
}

// One system call where the kernel has close_range: a loop of close() up to
// a host's descriptor limit can take minutes when that limit is in the
// millions, which would outlast the extraction's time limit.
void closeAboveStandardStreams(int descriptorLimit) {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, STDERR_FILENO + 1U, ~0U, 0U) == 0) return;
#endif
    for (int fd = STDERR_FILENO + 1; fd < descriptorLimit; ++fd) (void)close(fd);
}

// Runs in the forked child: only close, dup2, execl and _exit. The
// parent-side ends, the child-side originals, sibling children's pipe ends
// and every descriptor the host opened without close-on-exec (libcurl's
// sockets) are all above 2, so one sweep up to the descriptor limit (read
// in the parent) closes them.
[[noreturn]] void execInChild(const ChildPipes& pipes, const char* command, int descriptorLimit) {
    if (dup2(pipes.inRead.get(), STDIN_FILENO) < 0 || dup2(pipes.outWrite.get(), STDOUT_FILENO) < 0 ||
        dup2(pipes.errWrite.get(), STDERR_FILENO) < 0)
        _exit(127);
    closeAboveStandardStreams(descriptorLimit);
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

void registerChild(pid_t pid, std::initializer_list<FILE*> streams) {
    lock_guard guard(&child_table_mutex);
    for (FILE* stream : streams) child_of_fd[fileno(stream)] = pid;
}

void forgetDescriptor(int fd) {
    lock_guard guard(&child_table_mutex);
    if (inTable(fd)) child_of_fd[fd] = 0;
}

int waitForChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        const int error = errno;  // the report below may overwrite it (a closed stderr)
        webclient::printToStderr("waitpid once\n");
        if (error != EINTR) break;
    }
    return status;
}

}  // namespace

namespace truststore {

pid_t popen3_child_pid(const popen3_streams& streams) {
    if (!ensureChildTable()) return 0;
    lock_guard guard(&child_table_mutex);
    return lookUpChild(streams);
}

}  // namespace truststore

extern "C" popen3_streams popen3(const char* command) {
    const popen3_streams none = {nullptr, nullptr, nullptr};
    if (command == nullptr) {
        errno = EINVAL;
        return none;
    }
    if (!ensureChildTable()) return none;
    ChildPipes pipes;
    if (!pipes.open()) return none;
    {
        lock_guard guard(&child_table_mutex);
        for (const UniqueFd* end : {&pipes.inWrite, &pipes.outRead, &pipes.errRead})
            if (!makeRoomFor(end->get())) return none;  // pclose3 could never find the child
    }
    // Opened before the fork so that a failure here has no child to undo.
    FilePtr childIn = adoptStream(pipes.inWrite, "w");
    FilePtr childOut = adoptStream(pipes.outRead, "r");
    FilePtr childErr = adoptStream(pipes.errRead, "r");
    if (!childIn || !childOut || !childErr) return none;

    const int descriptorLimit = getdtablesize();
    const pid_t pid = fork();
    if (pid < 0) return none;
    if (pid == 0) execInChild(pipes, command, descriptorLimit);

    // pipes' destructor closes the child-side ends in the parent.
    registerChild(pid, {childIn.get(), childOut.get(), childErr.get()});
    return popen3_streams{childIn.release(), childOut.release(), childErr.release()};
}

extern "C" int pclose3(popen3_streams streams) {
    const pid_t pid = truststore::popen3_child_pid(streams);
    if (pid == 0) return -1;
    for (FILE* stream : {streams.child_in, streams.child_out, streams.child_err}) {
        if (stream == nullptr) continue;
        // Cleared before the close: once closed, the number may be handed
        // to another thread's popen3 at once, and its slot must survive.
        forgetDescriptor(fileno(stream));
        // Closing the child's input writes out what is still buffered for
        // it, into a pipe the child may have closed.
        webclient::SigpipeShield shield;
        (void)std::fclose(stream);  // nothing buffered is worth a report here
    }
    return waitForChild(pid);
}
