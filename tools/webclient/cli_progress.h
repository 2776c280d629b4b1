// Download progress for the `webclient` program, driven by the library's
// own JSON progress reports through the host sender.
#pragma once

#include <pthread.h>

#include <chrono>
#include <string>

#include "webclient/web_client.h"

class DownloadProgress {
public:
    explicit DownloadProgress(std::string imageName);
    ~DownloadProgress();
    DownloadProgress(const DownloadProgress&) = delete;
    DownloadProgress& operator=(const DownloadProgress&) = delete;

    // Makes `param` report into this object (one-image job) and registers
    // the sender. Starts the clock.
    void attach(download_param& param);
    // Ends the bar and prints the size and rate of the file at `path`, as
    // downloaded or, when the download was not `kept`, as received.
    void finish(const std::string& path, bool kept);

    // Handles one report (called on the library's transfer thread with the
    // progress lock held).
    void onReport(const char* report);

private:
    void draw(int percent);

    std::string imageName_;
    pthread_mutex_t lock_;
    ImageProgressMap map_;
    bool terminal_;
    int shownPercent_ = -1;
    std::chrono::steady_clock::time_point start_;
};
