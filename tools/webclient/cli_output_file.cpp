#include "cli_output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// A symbolic link is followed, so the file it names is the one replaced.
std::string resolvedTarget(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

mode_t modeForNewFile() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(std::string path) : target_(resolvedTarget(path)) {}

OutputFile::~OutputFile() {
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

std::FILE* OutputFile::open(std::string& error) {
    struct stat existing;
    const bool exists = ::stat(target_.c_str(), &existing) == 0;
    if (!exists || S_ISREG(existing.st_mode)) {
        const size_t slash = target_.rfind('/');
        const std::string directory = slash == std::string::npos ? "." : target_.substr(0, slash + 1);
        const std::string name = slash == std::string::npos ? target_ : target_.substr(slash + 1);
        std::string pattern = directory + (slash == std::string::npos ? "/." : ".") + name + ".XXXXXX";
        const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);
        // A directory we may not create in: write the target itself.
        if (fd >= 0) {
            (void)::fchmod(fd, exists ? existing.st_mode & 07777 : modeForNewFile());
            if (std::FILE* stream = ::fdopen(fd, "w+")) {
                temporary_ = pattern;
                return stream;
            }
            ::close(fd);
            ::unlink(pattern.c_str());
        }
    }
    std::FILE* stream = std::fopen(target_.c_str(), "we");
    if (stream == nullptr) error = "cannot open " + target_ + " for writing: " + std::strerror(errno);
    return stream;
}

bool OutputFile::commit(std::FILE* written, std::string& error) {
    if (std::fflush(written) != 0 || std::ferror(written) != 0) {
        error = "writing " + writtenPath() + " failed";
        return false;
    }
    if (temporary_.empty()) return true;
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        error = "cannot put the download in place of " + target_ + ": " + std::strerror(errno);
        return false;
    }
    temporary_.clear();
    return true;
}
