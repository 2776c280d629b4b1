// Redirects the process's standard error (descriptor 2) into a temporary
// file for the lifetime of the object: the child-process functions and the
// trust store's lock traces write there directly, not to the logger.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

class StderrCapture {
public:
    StderrCapture() {
        char name[] = "/tmp/webclient-stderr-XXXXXX";
        file_ = mkostemp(name, O_CLOEXEC);
        if (file_ >= 0) (void)unlink(name);
        std::fflush(stderr);
        saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        if (file_ >= 0) (void)dup2(file_, STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        if (file_ >= 0) (void)close(file_);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Puts the original stderr back; text() still works afterwards.
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        (void)dup2(saved_, STDERR_FILENO);
        (void)close(saved_);
        saved_ = -1;
    }

    std::string text() const {
        std::string all;
        char chunk[4096];
        for (off_t at = 0;;) {
            const ssize_t got = pread(file_, chunk, sizeof chunk, at);
            if (got <= 0) break;
            all.append(chunk, static_cast<size_t>(got));
            at += got;
        }
        return all;
    }

    size_t count(const std::string& fragment) const {
        const std::string all = text();
        size_t n = 0;
        for (size_t at = all.find(fragment); at != std::string::npos; at = all.find(fragment, at + 1)) ++n;
        return n;
    }

private:
    int file_ = -1;
    int saved_ = -1;
};
