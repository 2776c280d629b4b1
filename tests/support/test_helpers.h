// Small helpers shared by the test binaries.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "webclient/web_request.h"

// Collects what a data or header callback receives, and on which thread.
class Collected {
public:
    Collected() : owner_(std::this_thread::get_id()) {}

    DataReceivedCallback callback() {
        return [this](std::shared_ptr<DataReceivedEventArgs> args) {
            std::lock_guard<std::mutex> guard(mutex_);
            text_.append(args->data, static_cast<size_t>(args->size));
            sawOtherThread_ |= (std::this_thread::get_id() != owner_);
            ++chunks_;
        };
    }
    std::string text() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return text_;
    }
    int chunks() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return chunks_;
    }
    // True when every piece arrived on the thread that made this object.
    bool onCallerThread() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return chunks_ > 0 && !sawOtherThread_;
    }

private:
    mutable std::mutex mutex_;
    std::thread::id owner_;
    std::string text_;
    int chunks_ = 0;
    bool sawOtherThread_ = false;
};

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

// Reads a whole file; empty when it cannot be read.
std::string readWholeFile(const std::string& path);
