#include "cli_progress.h"

#include <json-c/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "webclient/host.h"

namespace {

constexpr int kBarWidth = 40;
const char kProgressKey[] = "webclient";

// The "percentage" member of {"token":..., "data": {"webclient": {...}}}.
double percentageOf(const char* report) {
    json_object* root = json_tokener_parse(report);
    double value = -1.0;
    json_object *data = nullptr, *item = nullptr, *percentage = nullptr;
    if (root != nullptr && json_object_object_get_ex(root, "data", &data) &&
        json_object_object_get_ex(data, kProgressKey, &item) &&
        json_object_object_get_ex(item, "percentage", &percentage)) {
        value = json_object_get_double(percentage);
    }
    json_object_put(root);
    return value;
}

}  // namespace

DownloadProgress::DownloadProgress(std::string imageName)
    : imageName_(std::move(imageName)), terminal_(isatty(STDERR_FILENO) != 0) {
    pthread_mutex_init(&lock_, nullptr);
}

DownloadProgress::~DownloadProgress() {
    SetSalSend(nullptr);
    pthread_mutex_destroy(&lock_);
}

void DownloadProgress::attach(download_param& param) {
    param.progress_key = kProgressKey;
    param.image_name = imageName_;
    param.progress_lock = &lock_;
    param.progress_map = &map_;
    param.progress_divisor = 1.0;
    reset_download_percentage_data();
    SetSalSend([this](const char* report) { onReport(report); });
    start_ = std::chrono::steady_clock::now();
}

void DownloadProgress::onReport(const char* report) {
    const double fraction = percentageOf(report);
    if (fraction < 0.0) return;
    const int percent = static_cast<int>(fraction * 100.0 + 0.5);
    if (percent == shownPercent_) return;
    shownPercent_ = percent;
    draw(percent);
}

void DownloadProgress::draw(int percent) {
    if (!terminal_) {
        std::fprintf(stderr, "progress %d%%\n", percent);
        return;
    }
    const int filled = percent * kBarWidth / 100;
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(filled, '#').c_str(),
                 std::string(kBarWidth - filled, ' ').c_str(), percent);
    std::fflush(stderr);
}

void DownloadProgress::finish(const std::string& path, bool kept) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    struct stat info;
    const long long bytes = (::stat(path.c_str(), &info) == 0) ? static_cast<long long>(info.st_size) : 0;
    if (terminal_ && shownPercent_ >= 0) std::fputc('\n', stderr);
    const double rate = seconds > 0.0 ? bytes / seconds / (1024.0 * 1024.0) : 0.0;
    std::fprintf(stderr, "%s %lld bytes in %.2f s (%.2f MiB/s)\n", kept ? "downloaded" : "download failed: received", bytes,
                 seconds, rate);
}
