// Helpers for the benchmark: timing, statistics, raw libcurl baselines and
// process measurements.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <string>
#include <vector>

using BenchClock = std::chrono::steady_clock;

double secondsSince(BenchClock::time_point start);
double median(std::vector<double> values);
double percentile(std::vector<double> values, double fraction);

// A reused easy handle on the calling thread: the raw-libcurl baseline.
class RawClient {
public:
    RawClient();
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    // GET into memory; returns the body size, or -1 on failure.
    long get(const std::string& url);
    // GET into a file; returns the HTTP status, or -1 on failure.
    long download(const std::string& url, const std::string& path);
    // Sets the handle up for a GET into memory without performing it.
    void prepareGet(const std::string& url);
    CURL* handle() const { return handle_; }
    const std::string& url() const { return url_; }
    long received() const { return static_cast<long>(body_.size()); }

private:
    CURL* handle_;
    std::string url_;
    std::string body_;
};

// Raw libcurl driving one transfer per URL from the calling thread through
// one multi handle, each easy handle added again as soon as it completes,
// for `seconds`: the most any engine that runs every transfer on one thread
// can do. Returns the number of completed 1 KiB GETs, or -1 on a failure.
long rawOneThreadGets(const std::vector<std::string>& urls, double seconds);

// Peak resident set size of this process, in KiB (VmHWM).
long peakRssKib();
// CPU seconds (user + system) used so far by this whole process.
double processCpuSeconds();
// CPU seconds (user + system) used so far by the thread with this name.
double threadCpuSeconds(const std::string& threadName);
// Opens descriptors until `count` extra ones exist (duplicates of /dev/null).
void occupyDescriptors(int count);
