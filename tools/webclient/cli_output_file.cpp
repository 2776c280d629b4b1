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
// async-signal-safe calls); empty when there is none.
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
// points at a file that does not exist yet.
std::string followLinks(std::string path) {
    for (int hops = 0; hops < 40; ++hops) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(path.c_str(), target, sizeof target - 1);
        if (length < 0) return path;
        target[length] = '\0';
        path = target[0] == '/' ? std::string(target) : directoryOf(path) + "/" + target;
    }
    return path;
}

mode_t modeForNewFile() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

OutputFile::OutputFile(std::string path) : target_(followLinks(std::move(path))) {}

OutputFile::~OutputFile() {
    if (temporary_.empty()) return;
    ::unlink(temporary_.c_str());
    g_temporaryPath[0] = '\0';
}

std::FILE* OutputFile::open(std::string& error) {
    struct stat existing;
    targetExists_ = ::stat(target_.c_str(), &existing) == 0;
    if (targetExists_ && !S_ISREG(existing.st_mode)) {
        std::FILE* stream = std::fopen(target_.c_str(), "we");
        if (stream == nullptr) error = failure("cannot open " + target_ + " for writing");
        return stream;
    }
    if (targetExists_ && ::access(target_.c_str(), W_OK) != 0) {
        error = failure("cannot write " + target_);
        return nullptr;
    }
    // Beside the target when we may create files there; an existing file in
    // a directory we may not write to is overwritten from a temporary file
    // elsewhere.
    std::FILE* stream = openTemporary(directoryOf(target_), error);
    if (stream == nullptr && targetExists_) {
        const char* elsewhere = std::getenv("TMPDIR");
        error.clear();
        stream = openTemporary(elsewhere != nullptr && *elsewhere != '\0' ? elsewhere : "/tmp", error);
    }
    return stream;
}

std::FILE* OutputFile::openTemporary(const std::string& directory, std::string& error) {
    const size_t slash = target_.rfind('/');
    std::string pattern = directory + "/." + target_.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);
    if (fd < 0) {
        error = failure("cannot create a file in " + directory);
        return nullptr;
    }
    temporary_ = pattern;
    rememberTemporary(pattern);
    (void)::fchmod(fd, modeForNewFile());
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
    if (targetExists_) return copyIntoTarget(written, error);
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        error = failure("cannot put the download in place of " + target_);
        return false;
    }
    temporary_.clear();
    g_temporaryPath[0] = '\0';
    return true;
}

bool OutputFile::copyIntoTarget(std::FILE* written, std::string& error) {
    std::FILE* target = std::fopen(target_.c_str(), "we");
    if (target == nullptr) {
        error = failure("cannot open " + target_ + " for writing");
        return false;
    }
    std::rewind(written);
    char buffer[65536];
    size_t got = 0;
    bool copied = true;
    while (copied && (got = std::fread(buffer, 1, sizeof buffer, written)) > 0) {
        copied = std::fwrite(buffer, 1, got, target) == got;
    }
    copied = copied && std::ferror(written) == 0;
    if (std::fclose(target) != 0) copied = false;
    if (!copied) error = failure("copying the download into " + target_ + " failed");
    return copied;
}

void removeTemporaryDownloadOnSignals() {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, &onTerminatingSignal);
}
