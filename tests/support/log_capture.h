// Captures the library's log lines in-process for the lifetime of the
// object (installs a sink, lowers the threshold to debug, restores both).
#pragma once

#include <mutex>
#include <string>
#include <vector>

struct LogLine {
    int level;
    int module;
    std::string text;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Number of captured lines whose text equals `text` exactly.
    size_t count(const std::string& text) const;
    // Number of captured lines whose text contains `fragment`.
    size_t countContaining(const std::string& fragment) const;
    bool contains(const std::string& fragment) const { return countContaining(fragment) > 0; }
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
    int previousLevel_;
};
