#include "cli_output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

// The temporary file's name for the signal handler (which may only make
// async-signal-safe calls); empty when an interruption must leave it.
char g_temporaryPath[PATH_MAX + 32];

void rememberTemporary(const std::string& path) {
    const size_t length = std::min(path.size(), sizeof g_temporaryPath - 1);
    std::memcpy(g_temporaryPath, path.data(), length);
    g_temporaryPath[length] = '\0';
}

void onTerminatingSignal(int signal) {
    if (g_temporaryPath[0] != '\0') ::unlink(g_temporaryPath);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The file a path names, following symbolic links even when the last one
// points at a file that does not exist yet; false for a loop.
bool followLinks(std::string& path) {
    for (int hops = 0; hops < 40; ++hops) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(path.c_str(), target, sizeof target - 1);
        if (length < 0) return true;
        target[length] = '\0';
        path = target[0] == '/' ? std::string(target) : directoryOf(path) + "/" + target;
    }
    errno = ELOOP;
    return false;
}

mode_t modeForNewFile() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t wrote = ::write(fd, data, size);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return false;
        data += wrote;
        size -= static_cast<size_t>(wrote);
    }
    return true;
}

// A file renamed into place keeps its group only if the temporary file has it.
bool takeGroup(int fd, gid_t group) {
    struct stat temporary;
    if (::fstat(fd, &temporary) != 0) return false;
    return temporary.st_gid == group || ::fchown(fd, static_cast<uid_t>(-1), group) == 0;
}

}  // namespace

OutputFile::OutputFile(std::string path) : target_(std::move(path)) {}

OutputFile::~OutputFile() {
    if (temporary_.empty() || kept_) return;
    ::unlink(temporary_.c_str());
    g_temporaryPath[0] = '\0';
}

std::FILE* OutputFile::open(std::string& error) {
    struct stat existing;
    // Checked before links are followed: /dev/stdout on a pipe leads to
    // "pipe:[N]", which names no file.
    if (::stat(target_.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode)) return openAsGiven(error);
    if (!followLinks(target_)) {
        error = failure("cannot use " + target_);
        return nullptr;
    }
    targetExists_ = ::stat(target_.c_str(), &existing) == 0;
    if (!targetExists_ && errno != ENOENT) {
        error = failure("cannot use " + target_);
        return nullptr;
    }
    if (targetExists_ && !S_ISREG(existing.st_mode)) return openAsGiven(error);
    if (targetExists_ && ::access(target_.c_str(), W_OK) != 0) {
        error = failure("cannot write " + target_);
        return nullptr;
    }
    mode_ = targetExists_ ? existing.st_mode & 07777 : modeForNewFile();
    targetDevice_ = targetExists_ ? existing.st_dev : 0;
    targetInode_ = targetExists_ ? existing.st_ino : 0;
    byRename_ = !targetExists_ || (existing.st_nlink == 1 && existing.st_uid == ::geteuid());
    std::FILE* stream = openTemporary(directoryOf(target_), error);
    if (stream == nullptr && targetExists_) {
        // A directory we may not create files in: overwrite from elsewhere.
        const char* elsewhere = std::getenv("TMPDIR");
        error.clear();
        byRename_ = false;
        stream = openTemporary(elsewhere != nullptr && *elsewhere != '\0' ? elsewhere : "/tmp", error);
    }
    if (stream != nullptr && byRename_ && targetExists_) byRename_ = takeGroup(::fileno(stream), existing.st_gid);
    return stream;
}

// A device, a pipe, or a directory (which then fails with its reason).
std::FILE* OutputFile::openAsGiven(std::string& error) {
    std::FILE* stream = std::fopen(target_.c_str(), "we");
    if (stream == nullptr) error = failure("cannot open " + target_ + " for writing");
    return stream;
}

std::FILE* OutputFile::openTemporary(const std::string& directory, std::string& error) {
    const size_t slash = target_.rfind('/');
    // Cut so that the temporary name stays within NAME_MAX as the target's
    // does, between two UTF-8 characters.
    std::string name = target_.substr(slash == std::string::npos ? 0 : slash + 1);
    size_t cut = std::min<size_t>(name.size(), NAME_MAX - 8);
    while (cut > 0 && cut < name.size() && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name.resize(cut);
    std::string pattern = directory + "/." + name + ".XXXXXX";
    const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);  // mode 0600 until it is the target
    if (fd < 0) {
        error = failure("cannot create a file in " + directory);
        return nullptr;
    }
    temporary_ = pattern;
    rememberTemporary(pattern);
    std::FILE* stream = ::fdopen(fd, "w+");
    if (stream == nullptr) {
        error = failure("cannot write " + pattern);
        ::close(fd);
    }
    return stream;
}

bool OutputFile::commit(std::FILE* written, std::string& error) {
    if (std::fflush(written) != 0 || std::ferror(written) != 0) {
        error = failure("writing " + writtenPath() + " failed");
        return false;
    }
    if (temporary_.empty()) return true;
    if (byRename_ ? renameIntoTarget(written, error) : copyIntoTarget(written, error)) return true;
    // The download is whole; only putting it in place failed.
    error += "; it is kept in " + temporary_;
    keepTemporary();
    return false;
}

bool OutputFile::renameIntoTarget(std::FILE* written, std::string& error) {
    (void)::fchmod(::fileno(written), mode_);
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        error = failure("cannot put the download in place of " + target_);
        return false;
    }
    temporary_.clear();
    g_temporaryPath[0] = '\0';
    return true;
}

// The target's room is reserved before its old bytes are touched, so a full
// disk fails it unchanged. From then on the temporary file holds the only
// whole copy, so an interruption leaves it too.
bool OutputFile::copyIntoTarget(std::FILE* written, std::string& error) {
    struct stat downloaded;
    struct stat now;
    // The file checked when the download began, not whatever took its name
    // meanwhile (a FIFO would hang the copy, a link lead elsewhere).
    const int target = ::open(target_.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (target < 0 || ::fstat(target, &now) != 0 || ::fstat(::fileno(written), &downloaded) != 0) {
        error = failure("cannot open " + target_ + " for writing");
        if (target >= 0) ::close(target);
        return false;
    }
    if (!S_ISREG(now.st_mode) || now.st_dev != targetDevice_ || now.st_ino != targetInode_) {
        ::close(target);
        error = target_ + " was replaced during the download";
        return false;
    }
    const int reserved = downloaded.st_size > 0 ? ::posix_fallocate(target, 0, downloaded.st_size) : 0;
    if (reserved != 0) {
        ::close(target);
        errno = reserved;
        error = failure("no room to put the download in place of " + target_);
        return false;
    }
    g_temporaryPath[0] = '\0';
    std::rewind(written);
    char buffer[65536];
    size_t got = 0;
    bool copied = true;
    while (copied && (got = std::fread(buffer, 1, sizeof buffer, written)) > 0) copied = writeAll(target, buffer, got);
    copied = copied && std::ferror(written) == 0 && ::ftruncate(target, downloaded.st_size) == 0;
    if (::close(target) != 0) copied = false;
    if (!copied) error = failure("copying the download into " + target_ + " failed");
    return copied;
}

void OutputFile::keepTemporary() {
    kept_ = true;
    g_temporaryPath[0] = '\0';
}

void removeTemporaryDownloadOnSignals() {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, &onTerminatingSignal);
}
