// Captures the library's log lines in-process for the lifetime of the
// object (installs a sink, lowers the threshold to debug, restores both).
// Every line, captured or not, is checked for secrets (see below).
#pragma once

#include <mutex>
#include <string>
#include <vector>

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Number of captured lines whose text equals `text` exactly.
    size_t count(const std::string& text) const;
    // Number of captured lines whose text contains `fragment`.
    size_t countContaining(const std::string& fragment) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    int previousLevel_;
};

// A secret the tests use as a credential; no log line may ever show it.
extern const char kSentinelSecret[];

// Fails the running test when `text` shows the sentinel secret or the value
// of a "password=" or "client_secret=" parameter (only "***" may follow).
void checkLineForSecrets(const std::string& text);
// For the rest of the test binary: every line at any level is checked as
// above, and lines at warning level and above still go to standard error.
void watchLogsForSecrets();
